// Which tables the service lists to find what a module that died left
// behind: each table that exists once, the others never, since listing may
// create a table; and each one once when it cannot tell which exist.
#include <gtest/gtest.h>

#include "support/faked_service.h"

namespace qel::test {
namespace {

class LeftoverTablesTest : public ::testing::Test, protected FakedService {
 protected:
  // The first synchronisation wants rules in the filter tables only.
  void FirstSync() { ASSERT_EQ(service->AddRules({AgentPort(4000)}, "ostra"), oro::errOk); }
};

TEST_F(LeftoverTablesTest, ExistingTablesAreListedOnceAndTheOthersNever) {
  tools->existingTables = std::vector<std::string>{"nat", "filter"};
  FirstSync();
  // filter, which holds the rules, and nat, which exists, in each family.
  EXPECT_EQ(kernel->queries, 4);
  EXPECT_TRUE(tracer->Contains("[IPv4 mangle] Ignore mangle"));
  EXPECT_TRUE(tracer->Contains("[IPv6 mangle] Ignore mangle"));
  EXPECT_EQ(tools->tableReadings, 2);

  // Every table has been looked at: from now on only the rules count.
  ASSERT_EQ(timer->Fire(), oro::errOk);
  EXPECT_EQ(kernel->queries, 6);
  EXPECT_EQ(tools->tableReadings, 2);
  EXPECT_TRUE(tracer->Contains("[IPv4 nat] Ignore nat"));
}

TEST_F(LeftoverTablesTest, TablesThatCannotBeReadAreEachListedOnce) {
  tools->existingTables.reset();
  FirstSync();
  EXPECT_EQ(kernel->queries, 6);
  EXPECT_TRUE(tracer->Contains("Cannot tell which IPv6 tables exist"));

  ASSERT_EQ(timer->Fire(), oro::errOk);
  EXPECT_EQ(kernel->queries, 8);
  EXPECT_EQ(tools->tableReadings, 2);
}

}  // namespace
}  // namespace qel::test
