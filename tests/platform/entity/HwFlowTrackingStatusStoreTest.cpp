// The tracker status kept in the state directory: what one store wrote, a store made later over a fresh
// Status entity (a restarted agent) loads.
#include <gtest/gtest.h>

#include "platform/entity/HwFlowTrackingStatusStore.h"
#include "testkit/TempStateDir.h"

using namespace Calyx;
using namespace Calyx::HwFlowTracking;

namespace {

TEST(HwFlowTrackingStatusStoreTest, WhatOneRunLeavesTheNextLoads) {
  Calyx::Test::TempStateDir dir;
  {
    auto status = make<Status>();
    StatusStore store(status);
    auto t1 = status->hwFtStatusIs("t1");
    t1->activeIntervalIs(FlowTracking::ActiveInterval(2000));
    t1->inactiveTimeoutIs(FlowTracking::InactiveTimeout(7000));
    status->hwFtStatusIs("gone");
    status->hwFtStatusDel("gone");
    EXPECT_EQ(store.table()->entryCount(), 1u);
  }  // the process "dies": the table file stays
  auto status = make<Status>();
  StatusStore store(status);
  ASSERT_EQ(status->hwFtStatusCount(), 1u);
  auto t1 = status->hwFtStatus("t1");
  ASSERT_TRUE(t1);
  EXPECT_EQ(t1->activeInterval().milliseconds(), 2000u);
  EXPECT_EQ(t1->inactiveTimeout().milliseconds(), 7000u);
  status->hwFtStatusDelAll();  // a turn-off
  EXPECT_EQ(store.table()->entryCount(), 0u);
}

}  // namespace
