#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "firewall/nfqueue_query.h"
#include "support/fake_framework.h"
#include "support/netns.h"
#include "support/nfqueue_binder.h"

namespace qel::test {
namespace {

// The kernel's list of bound queues belongs to a network namespace, and
// /proc/net shows the namespace of the process's main thread, not of the
// calling thread. The namespace child is one thread that moved into its own
// namespace, so there the list is that namespace's, wherever the query runs.
TEST(NfqueueQueryNs, SkipsQueuesBoundInTheKernel) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace and bind NFQUEUE numbers";
  const auto run = RunInNetworkNamespace([] {
    NfqueueBinder binder;
    for (std::uint16_t queue : {0, 1, 3}) binder.Bind(queue);
    auto locator = Make<FakeLocator>();
    oro::RefPtr<firewall::NfqueueQuery> query;
    if (CreateInstance(query, locator.Get()) != oro::errOk) return std::string("cannot create the query");
    std::ostringstream answers;
    for (std::uint16_t count : {1, 2, 1}) {
      std::uint16_t first = 0xbeef;
      const oro::result_t r = query->GetAvailableQueue(count, first);
      answers << (r == oro::errOk ? std::to_string(first) : "error") << " ";
    }
    return answers.str();
  });
  ASSERT_TRUE(run.completed) << run.output;
  // 2 is free; 4-5 is the first run of two past 3 and the reserved 2.
  EXPECT_EQ(run.output, "2 4 6 ");
}

}  // namespace
}  // namespace qel::test
