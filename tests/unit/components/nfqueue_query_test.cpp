#include "firewall/nfqueue_query.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "support/fake_framework.h"

namespace qel::test {
namespace {

using firewall::NfqueueQuery;
namespace fs = std::filesystem;

// A line of the kernel's list for a bound queue.
std::string BoundLine(int queue) {
  return "  " + std::to_string(queue) + "  12345     0 2 65531     0     0        0  1\n";
}

class NfqueueQueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_locator->Register(m_tracer);
    m_path = fs::path(::testing::TempDir()) /
             ("nfqueue_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    WriteList("");
    ASSERT_EQ(CreateInstance(m_query, m_locator.Get(), m_path.string()), oro::errOk);
  }
  void TearDown() override { fs::remove(m_path); }

  void WriteList(const std::string& text) { std::ofstream(m_path) << text; }
  void Bind(std::initializer_list<int> queues) {
    std::string text;
    for (int q : queues) text += BoundLine(q);
    WriteList(text);
  }
  // The first number handed out, or -1 with the failure code checked.
  int Ask(std::uint16_t count) {
    std::uint16_t first = 0xbeef;
    const oro::result_t r = m_query->GetAvailableQueue(count, first);
    if (r == oro::errOk) return first;
    EXPECT_EQ(r, oro::errNotFound);
    EXPECT_EQ(first, 0xbeef) << "written on failure";
    return -1;
  }

  fs::path m_path;
  oro::RefPtr<FakeTracer> m_tracer = Make<FakeTracer>();
  oro::RefPtr<FakeLocator> m_locator = Make<FakeLocator>();
  oro::RefPtr<NfqueueQuery> m_query;
};

TEST_F(NfqueueQueryTest, HandsOutTheLowestRunNeitherBoundNorReserved) {
  struct Case {
    std::initializer_list<int> bound;
    std::vector<std::pair<std::uint16_t, int>> asksAndAnswers;
  };
  for (const Case& c : {Case{{}, {{4, 0}, {4, 4}}}, Case{{0, 1}, {{2, 2}}}, Case{{0, 5}, {{4, 1}, {5, 6}}}}) {
    Bind(c.bound);
    ASSERT_EQ(CreateInstance(m_query, m_locator.Get(), m_path.string()), oro::errOk);  // nothing reserved
    for (const auto& [count, answer] : c.asksAndAnswers) EXPECT_EQ(Ask(count), answer) << "count " << count;
  }
  EXPECT_TRUE(m_tracer->Contains(tracing::Detail, "Queue 5 is in use"));
}

// A reservation lasts until the list shows the queue bound; from then on
// the list alone keeps it out, so once unbound it can be handed out again.
TEST_F(NfqueueQueryTest, ReservationEndsWhenTheQueueIsSeenBound) {
  EXPECT_EQ(Ask(2), 0);
  Bind({0, 1});
  EXPECT_EQ(Ask(1), 2);
  Bind({2});
  EXPECT_EQ(Ask(1), 0);
}

TEST_F(NfqueueQueryTest, CountZeroAnswersZeroAndReservesNothing) {
  Bind({0});
  EXPECT_EQ(Ask(0), 0);
  WriteList("");
  EXPECT_EQ(Ask(1), 0);
}

TEST_F(NfqueueQueryTest, NothingPastTheLastQueueNumber) {
  EXPECT_EQ(Ask(65535), 0);
  EXPECT_EQ(Ask(2), -1);
  EXPECT_EQ(Ask(1), 65535);
  EXPECT_EQ(Ask(1), -1);
}

TEST_F(NfqueueQueryTest, UnreadableOrMalformedListKeepsWhatIsKnown) {
  WriteList(BoundLine(3) + "queue seven\n" + BoundLine(7));
  EXPECT_EQ(Ask(4), 4);  // 3 is bound; 7 was never read
  EXPECT_TRUE(m_tracer->Contains(tracing::Error, "Cannot parse " + m_path.string()));

  fs::remove(m_path);
  EXPECT_EQ(Ask(1), 0);  // the reservation of 4-7 holds
  EXPECT_EQ(Ask(4), 8);
  EXPECT_TRUE(m_tracer->Contains(tracing::Error, "Cannot open " + m_path.string()));
}

TEST_F(NfqueueQueryTest, ConcurrentCallersNeverShareANumber) {
  Bind({1, 10});
  constexpr int kThreads = 6, kCallsEach = 40, kCount = 3;
  std::vector<std::vector<int>> firsts(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCallsEach; ++i) {
        std::uint16_t first = 0;
        if (m_query->GetAvailableQueue(kCount, first) == oro::errOk) firsts[t].push_back(first);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<int> handedOut;
  for (const auto& list : firsts) {
    ASSERT_EQ(list.size(), static_cast<std::size_t>(kCallsEach));
    for (int first : list) {
      for (int q = first; q < first + kCount; ++q) {
        EXPECT_TRUE(handedOut.insert(q).second) << "queue " << q << " handed out twice";
        EXPECT_TRUE(q != 1 && q != 10) << "bound queue " << q << " handed out";
      }
    }
  }
}

}  // namespace
}  // namespace qel::test
