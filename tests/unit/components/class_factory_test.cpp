#include "module/class_factory.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

#include "oro/exception.h"
#include "support/fake_framework.h"

namespace qel::test {
namespace {

struct IProbe : oro::IObject {
  static constexpr oro::iid_t iid = 0x0e0e0e0e;
};

// Constructs as the test tells it to.
enum class Outcome { Succeed, FailFinalConstruct, ThrowFramework, ThrowNested, ThrowPlain };
Outcome g_outcome = Outcome::Succeed;
int g_finalReleases = 0;

class Probe final : public ObjectImpl<Probe, IProbe> {
 public:
  explicit Probe(oro::IServiceLocator*) {}
  oro::result_t FinalConstruct() {
    switch (g_outcome) {
      case Outcome::Succeed: return oro::errOk;
      case Outcome::FailFinalConstruct: return oro::errAlreadyExists;
      case Outcome::ThrowFramework: throw oro::Exception(oro::errTimeout, "probe timed out");
      case Outcome::ThrowNested:
        try {
          throw oro::GetInterfaceException(oro::errNotFound);
        } catch (...) {
          std::throw_with_nested(std::runtime_error("while wiring the probe"));
        }
      case Outcome::ThrowPlain: throw std::logic_error("broken probe");
    }
    return oro::errOk;
  }
  void FinalRelease() noexcept { ++g_finalReleases; }
};

using ProbeFactory = module::ClassFactory<&module::Create<Probe, IProbe>>;

TEST(ClassFactory, ExceptionsBecomeCodesAndAreTraced) {
  auto tracer = Make<FakeTracer>();
  auto locator = Make<FakeLocator>();
  locator->Register(tracer);
  auto factory = oro::RefPtr<oro::IObjectFactory>::Adopt(ProbeFactory::Make());
  const std::uint32_t locksWithFactory = ModuleLockCount();

  const std::tuple<Outcome, oro::result_t, std::string> cases[] = {
      {Outcome::FailFinalConstruct, oro::errAlreadyExists, ""},
      {Outcome::ThrowFramework, oro::errTimeout, "probe timed out"},
      {Outcome::ThrowNested, oro::errNotFound, "while wiring the probe"},
      {Outcome::ThrowPlain, 0x80000150, "broken probe"},
  };
  for (const auto& [outcome, expected, traced] : cases) {
    g_outcome = outcome;
    auto* sentinel = reinterpret_cast<oro::IObject*>(0x1);
    EXPECT_EQ(factory->CreateInstance(locator.Get(), &sentinel), expected);
    EXPECT_EQ(sentinel, reinterpret_cast<oro::IObject*>(0x1));
    EXPECT_EQ(tracer->Contains(oro::trace_level::Error, "Exception during object construction: " + traced),
              !traced.empty());
    // The half-built object is gone and holds no lock; FinalRelease never ran.
    EXPECT_EQ(ModuleLockCount(), locksWithFactory);
  }
  EXPECT_EQ(g_finalReleases, 0);

  g_outcome = Outcome::Succeed;
  oro::RefPtr<oro::IObject> object;
  ASSERT_EQ(factory->CreateInstance(locator.Get(), object.Out()), oro::errOk);
  EXPECT_EQ(ModuleLockCount(), locksWithFactory + 1);
  object.Reset();
  EXPECT_EQ(g_finalReleases, 1);
  EXPECT_EQ(ModuleLockCount(), locksWithFactory);
}

}  // namespace
}  // namespace qel::test
