// The exact-match adapter between the dispatcher's requests (Emt::Config) and the chip's tables (here the
// software ones), on the whole in-process road and the simulated clock.
#include <gtest/gtest.h>

#include <memory>

#include "mirror_on_drop/MirrorOnDropAdapterSm.h"
#include "platform/io/CalyxEmSoftwareExactMatchTable.h"
#include "tests/support/FeaturePipeline.h"
#include "tests/support/TraceCapture.h"

using namespace MirrorOnDrop;
using namespace Calyx;
using MirrorOnDrop::Test::FeaturePipeline;
using Family = IpGenAddr::Family;

namespace {

class AdapterSmTest : public ::testing::Test {
 protected:
  void start(uint32_t capacity = 16, bool available = true) {
    capability->exactMatchSupportedIs(available);
    misc->exactMatchEnabledIs(true);
    hw4 = std::make_unique<CalyxEm::SoftwareExactMatchTable>(*p.loop, config4, status4, capacity, 0.05);
    hw6 = std::make_unique<CalyxEm::SoftwareExactMatchTable>(*p.loop, config6, status6, capacity, 0.05);
    adapter =
        adapterSmFactory(capability, misc, p.emtConfig, p.emtStatus, status4, config4, status6, config6);
    p.dispatcherStart();
  }
  void TearDown() override {
    p.dispatcher = nullptr;
    adapter = nullptr;
  }
  static CalyxEm::ExactMatchKey hwKey(Report::Key const& f) {
    return {f.ipProto(), f.srcIp(), f.dstIp(), f.srcPort(), f.dstPort()};
  }
  std::optional<bool> installed(Report::Key const& flow, IntfId const& intf) {
    auto const* e = p.emtStatus->entry(Emt::Key(flow, intf));
    return e ? std::optional<bool>(e->isInstalled()) : std::nullopt;
  }

  FeaturePipeline p;
  Ptr<CalyxCentral::FlexibleUftCapabilityStatus> capability =
      make<CalyxCentral::FlexibleUftCapabilityStatus>();
  Ptr<CalyxCentral::CalyxMiscConfig> misc = make<CalyxCentral::CalyxMiscConfig>();
  Ptr<CalyxEm::ExactMatchEntryConfig> config4 = make<CalyxEm::ExactMatchEntryConfig>(Family::ipv4);
  Ptr<CalyxEm::ExactMatchEntryConfig> config6 = make<CalyxEm::ExactMatchEntryConfig>(Family::ipv6);
  Ptr<CalyxEm::ExactMatchEntryStatus> status4 = make<CalyxEm::ExactMatchEntryStatus>(Family::ipv4);
  Ptr<CalyxEm::ExactMatchEntryStatus> status6 = make<CalyxEm::ExactMatchEntryStatus>(Family::ipv6);
  std::unique_ptr<CalyxEm::SoftwareExactMatchTable> hw4, hw6;
  Ptr<AdapterSm> adapter;
};

TEST_F(AdapterSmTest, OneEntryPerFlowInItsFamilysTableInstalledAfterTheDelayGoneAfterTheStop) {
  start();
  auto const v4 = FeaturePipeline::flow(1), v6 = FeaturePipeline::flow(2, true);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2, true)});
  ASSERT_EQ(config4->configCount(), 1u);
  ASSERT_EQ(config6->configCount(), 1u);
  EXPECT_EQ(config4->config(hwKey(v4))->intfSet, (std::set<IntfId>{FeaturePipeline::kIntfA}));
  EXPECT_EQ(installed(v4, FeaturePipeline::kIntfA), false);  // not before the install delay
  p.loop->runFor(0.1);
  EXPECT_EQ(installed(v4, FeaturePipeline::kIntfA), true);
  EXPECT_EQ(installed(v6, FeaturePipeline::kIntfA), true);
  EXPECT_EQ(hw4->installedCount(), 1u);
  p.loop->runFor(10.1);  // the STOPs: the dispatcher removes the requests, the hardware follows
  EXPECT_EQ(config4->configCount() + config6->configCount(), 0u);
  EXPECT_EQ(hw4->installedCount() + hw6->installedCount(), 0u);
  EXPECT_EQ(p.emtStatus->entryCount(), 0u);
}

TEST_F(AdapterSmTest, AFlowOnTwoInterfacesIsOneEntryUntilTheLastInterfaceGoes) {
  start();
  auto const flow = FeaturePipeline::flow(1);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.drop(FeaturePipeline::kIntfB, {FeaturePipeline::frame(1, 2)});
  p.loop->runFor(0.1);
  ASSERT_EQ(config4->configCount(), 1u);
  EXPECT_EQ(config4->config(hwKey(flow))->intfSet,
            (std::set<IntfId>{FeaturePipeline::kIntfA, FeaturePipeline::kIntfB}));
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfB), true);
  p.emtConfig->entryDel(Emt::Key(flow, FeaturePipeline::kIntfA));
  EXPECT_EQ(config4->config(hwKey(flow))->intfSet, (std::set<IntfId>{FeaturePipeline::kIntfB}));
  EXPECT_EQ(hw4->installedCount(), 1u);  // still installed
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), std::nullopt);
  p.emtConfig->entryDel(Emt::Key(flow, FeaturePipeline::kIntfB));
  EXPECT_EQ(config4->configCount(), 0u);
  EXPECT_EQ(hw4->installedCount(), 0u);
}

TEST_F(AdapterSmTest, EntriesPastTheCapacityWaitForRoom) {
  Calyx::Test::TraceCapture trace("Calyx-ExactMatch", 1u << 3);
  start(2);
  p.drop(FeaturePipeline::kIntfA,
         {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2), FeaturePipeline::frame(3, 3)});
  p.loop->runFor(0.1);
  EXPECT_EQ(hw4->installedCount(), 2u);
  EXPECT_EQ(hw4->waitingCount(), 1u);
  ASSERT_EQ(trace.lines(3).size(), 1u);
  EXPECT_NE(trace.lines(3)[0].find("IPv4 exact-match table is full (2 of 2 entries installed)"),
            std::string::npos);
  int installedFlows = 0;
  for (uint16_t n = 1; n <= 3; ++n)
    installedFlows += *installed(FeaturePipeline::flow(n), FeaturePipeline::kIntfA);
  EXPECT_EQ(installedFlows, 2);
  // Room frees up: the waiting entry goes in.
  for (uint16_t n = 1; n <= 3; ++n) {
    if (*installed(FeaturePipeline::flow(n), FeaturePipeline::kIntfA)) {
      p.emtConfig->entryDel(Emt::Key(FeaturePipeline::flow(n), FeaturePipeline::kIntfA));
      break;
    }
  }
  EXPECT_EQ(hw4->installedCount(), 2u);
  EXPECT_EQ(hw4->waitingCount(), 0u);
  EXPECT_EQ(p.emtStatus->entryCount(), 2u);
  p.emtStatus->forEachEntry([](Emt::EntryStatus const& e) { EXPECT_TRUE(e.isInstalled()) << e.key(); });
  // An adapter that goes while an entry waits: each entry it takes out makes room, and the hardware installs
  // the waiting one, whose flow the adapter must still know at that moment.
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(4, 4)});
  p.loop->runFor(0.1);
  ASSERT_EQ(hw4->waitingCount(), 1u);
  adapter = nullptr;
  EXPECT_EQ(config4->configCount(), 0u);
  EXPECT_EQ(hw4->installedCount() + hw4->waitingCount(), 0u);
  EXPECT_EQ(p.emtStatus->entryCount(), 0u);
}

TEST_F(AdapterSmTest, QuickChangesAndARestartLeaveNoStrayHardwareEntries) {
  start();
  auto const flow = FeaturePipeline::flow(1);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  capability->exactMatchSupportedIs(false);  // taken out within its install delay: never installed
  p.loop->runFor(0.1);
  EXPECT_EQ(hw4->installedCount(), 0u);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), false);
  capability->exactMatchSupportedIs(true);
  p.loop->runFor(0.1);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), true);
  // An adapter that goes takes its entries with it; the next one picks up the requests still standing.
  adapter = nullptr;
  EXPECT_EQ(config4->configCount(), 0u);
  EXPECT_EQ(p.emtStatus->entryCount(), 0u);
  adapter = adapterSmFactory(capability, misc, p.emtConfig, p.emtStatus, status4, config4, status6, config6);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), false);
  p.loop->runFor(0.1);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), true);
  EXPECT_EQ(hw4->installedCount(), 1u);
}

TEST_F(AdapterSmTest, WithoutExactMatchNothingReachesTheHardwareAndReportsGoOn) {
  start(16, false);
  auto const flow = FeaturePipeline::flow(1);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.loop->runFor(1.1);
  EXPECT_EQ(config4->configCount(), 0u);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), false);
  EXPECT_EQ(p.received().size(), 1u);       // the START went out all the same
  capability->exactMatchSupportedIs(true);  // available now: written, then installed
  EXPECT_EQ(config4->configCount(), 1u);
  p.loop->runFor(0.1);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), true);
  capability->exactMatchSupportedIs(false);  // and taken out again
  EXPECT_EQ(config4->configCount(), 0u);
  EXPECT_EQ(installed(flow, FeaturePipeline::kIntfA), false);
}

TEST_F(AdapterSmTest, NamedAssertions) {
  start();
  Report::Key const mixed(6, *IpGenAddr::parse("10.0.0.1"), *IpGenAddr::parse("2001:db8::1"), 1, 2);
  EXPECT_DEATH(p.emtConfig->entryIs(Emt::EntryConfig(Emt::Key(mixed, FeaturePipeline::kIntfA))),
               "af == key.dstIp\\(\\).af\\(\\)");
  EXPECT_DEATH(status4->statusIs(hwKey(FeaturePipeline::flow(9)), true), "Unexpected missing installed key");
}

}  // namespace
