#include "host/host_dns_resolver.h"

#include <gtest/gtest.h>

#include <future>

#include "support/fake_framework.h"

namespace qel::host {
namespace {

// A look-up that answers only when the test lets it, and counts its calls.
class HeldLookup final : public NameLookup {
 public:
  NameLookupAnswer Lookup(const std::string& host) override {
    ++calls;
    m_release.get_future().wait();
    return {oro::errOk, {"192.0.2." + std::to_string(host.size())}};
  }
  void Release() { m_release.set_value(); }
  std::atomic<int> calls = 0;

 private:
  std::promise<void> m_release;
};

class AnsweringLookup final : public NameLookup {
 public:
  explicit AnsweringLookup(NameLookupAnswer answer) : m_answer(std::move(answer)) {}
  NameLookupAnswer Lookup(const std::string&) override { return m_answer; }

 private:
  NameLookupAnswer m_answer;
};

oro::RefPtr<HostDnsResolver> ResolverWith(std::shared_ptr<NameLookup> lookup) {
  return test::Make<HostDnsResolver>(std::move(lookup));
}

TEST(HostDnsResolver, AnswersALiteralAddressWithoutALookup) {
  auto lookup = std::make_shared<HeldLookup>();
  auto resolver = ResolverWith(lookup);
  std::vector<std::string> addresses;
  ASSERT_EQ(resolver->ResolveHostWithTimeout("10.77.0.2", addresses, 0), oro::errOk);
  EXPECT_EQ(addresses, std::vector<std::string>{"10.77.0.2"});
  ASSERT_EQ(resolver->ResolveHostWithTimeout("[FD77::0002]", addresses, 0), oro::errOk);
  EXPECT_EQ(addresses, std::vector<std::string>{"fd77::2"});
  EXPECT_EQ(lookup->calls, 0);
  lookup->Release();
}

TEST(HostDnsResolver, GivesUpAfterTheTimeOutAndTheLateAnswerHarmsNothing) {
  auto lookup = std::make_shared<HeldLookup>();
  auto resolver = ResolverWith(lookup);
  std::vector<std::string> addresses{"untouched"};
  // The look-up cannot answer before it is released, so only the time-out
  // can end the wait.
  EXPECT_EQ(resolver->ResolveHostWithTimeout("slow.example", addresses, 1), oro::errTimeout);
  EXPECT_EQ(addresses, std::vector<std::string>{"untouched"});
  // The resolver and the look-up go while the look-up's thread still runs;
  // its answer must land in state of its own (the sanitizer runs check).
  resolver.Reset();
  std::weak_ptr<HeldLookup> watched = lookup;
  lookup->Release();
  lookup.reset();
  while (!watched.expired()) std::this_thread::yield();
}

TEST(HostDnsResolver, PassesTheLookupsAnswerOrFailureOn) {
  std::vector<std::string> addresses{"untouched"};
  auto failing = ResolverWith(std::make_shared<AnsweringLookup>(NameLookupAnswer{oro::errNotFound, {}}));
  EXPECT_EQ(failing->ResolveHostWithTimeout("gone.example", addresses, 60000), oro::errNotFound);
  EXPECT_EQ(addresses, std::vector<std::string>{"untouched"});
  auto answering =
      ResolverWith(std::make_shared<AnsweringLookup>(NameLookupAnswer{oro::errOk, {"10.0.0.1", "fd00::1"}}));
  EXPECT_EQ(answering->ResolveHostWithTimeout("srv.example", addresses, 60000), oro::errOk);
  EXPECT_EQ(addresses, (std::vector<std::string>{"10.0.0.1", "fd00::1"}));
}

TEST(HostDnsResolver, TheSystemsResolverFindsNoNameUnderInvalid) {
  // Names under .invalid never exist; no server needs to be asked.
  auto resolver = test::Make<HostDnsResolver>();
  std::vector<std::string> addresses{"untouched"};
  EXPECT_EQ(resolver->ResolveHostWithTimeout("nothing-here.invalid", addresses, 60000), oro::errNotFound);
  EXPECT_EQ(addresses, std::vector<std::string>{"untouched"});
  EXPECT_EQ(resolver->ResolveHostWithTimeout("localhost", addresses, 60000), oro::errOk);
  EXPECT_FALSE(addresses.empty());
}

}  // namespace
}  // namespace qel::host
