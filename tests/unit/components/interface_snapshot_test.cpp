// The differences between two readings of the interface list.
#include "firewall/interface_snapshot.h"

#include <gtest/gtest.h>

namespace qel::firewall {
namespace {

const InterfaceSnapshot kLo{1, true, "lo"};
const InterfaceSnapshot kEth0{2, true, "eth0"};
const InterfaceSnapshot kEth1{3, false, "eth1"};

TEST(CompareSnapshots, ReportsInterfacesThatAppearedOrWentAwayAndNothingForTheRest) {
  EXPECT_TRUE(CompareSnapshots({kLo, kEth0}, {kLo, kEth0}).empty());
  EXPECT_TRUE(CompareSnapshots({}, {}).empty());
  // The order of the listing is no difference.
  EXPECT_TRUE(CompareSnapshots({kLo, kEth0}, {kEth0, kLo}).empty());

  const InterfaceChanges changes = CompareSnapshots({kLo, kEth0}, {kLo, kEth1});
  const InterfaceChanges expected{{kEth0, std::nullopt}, {std::nullopt, kEth1}};
  EXPECT_EQ(changes, expected);
}

TEST(CompareSnapshots, ARenameOrAStateChangeUnderTheSameIndexIsOneChange) {
  const InterfaceSnapshot renamed{2, true, "wan"};
  EXPECT_EQ(CompareSnapshots({kLo, kEth0}, {kLo, renamed}), (InterfaceChanges{{kEth0, renamed}}));

  const InterfaceSnapshot down{2, false, "eth0"};
  const InterfaceChanges changes = CompareSnapshots({kEth0}, {down});
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].before, kEth0);
  EXPECT_EQ(changes[0].after, down);
  EXPECT_FALSE(changes[0].after->enabled);

  // A new interface under a name that another had: the indexes tell them
  // apart.
  const InterfaceSnapshot newEth0{7, true, "eth0"};
  EXPECT_EQ(CompareSnapshots({kEth0}, {newEth0}),
            (InterfaceChanges{{kEth0, std::nullopt}, {std::nullopt, newEth0}}));
}

}  // namespace
}  // namespace qel::firewall
