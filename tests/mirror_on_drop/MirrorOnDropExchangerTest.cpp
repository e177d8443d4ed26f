#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropExchanger.h"

using namespace MirrorOnDrop;
using Calyx::make;
using Calyx::Ptr;

namespace {

class Log : public Exchanger::Reactor {
 public:
  explicit Log(Ptr<Exchanger> e) : Reactor(e), exchanger(std::move(e)) {}
  void handleIsStopReport() override { events.push_back("stop"); }
  void handleIsTogglingFeatureOff() override { events.push_back("toggling"); }
  void handleIsToggleFeatureOffReady() override { events.push_back("ready"); }
  void handleCounterProcessedPacket() override {
    events.push_back("processed:" + std::to_string(exchanger->emtKey().srcPort()));
  }
  void handleTimerReportTimeMin() override { events.push_back("time"); }
  void handleCounterSentStopReport() override { events.push_back("sentStop"); }
  Ptr<Exchanger> exchanger;
  std::vector<std::string> events;
};

class ExchangerTest : public ::testing::Test {
 protected:
  Ptr<Exchanger> exchanger = make<Exchanger>();
  Log log{exchanger};
};

TEST_F(ExchangerTest, PulsesReachReactorsEveryTime) {
  exchanger->isStopReportPulse();
  exchanger->isStopReportPulse();
  EXPECT_EQ(log.events, (std::vector<std::string>{"stop", "stop"}));
  EXPECT_TRUE(exchanger->isStopReport());
  exchanger->isStopReportStore(false);
  exchanger->isToggleFeatureOffReadyPulse();
  EXPECT_EQ(log.events.size(), 3u);
  EXPECT_FALSE(exchanger->isStopReport());
}

TEST_F(ExchangerTest, SettersNotifyOnlyOnChange) {
  exchanger->isTogglingFeatureOffIs(true);
  exchanger->isTogglingFeatureOffIs(true);
  exchanger->isTogglingFeatureOffStore(false);
  exchanger->timerReportTimeMinIs(5.0);
  exchanger->timerReportTimeMinIs(5.0);
  EXPECT_EQ(log.events, (std::vector<std::string>{"toggling", "time"}));
  EXPECT_FALSE(exchanger->isTogglingFeatureOff());
}

TEST_F(ExchangerTest, CountersWrapAndNotifyOnlyOnChange) {
  EXPECT_EQ(exchanger->counterProcessedPacketInc(0), 0u);
  EXPECT_TRUE(log.events.empty());
  exchanger->counterSentStopReportIs(UINT64_MAX);
  EXPECT_EQ(exchanger->counterSentStopReportInc(1), 0u);
  EXPECT_EQ(log.events, (std::vector<std::string>{"sentStop", "sentStop"}));
  EXPECT_EQ(exchanger->counterReceivedPacketInc(1), 1u);
  EXPECT_EQ(log.events.size(), 2u);
}

TEST_F(ExchangerTest, SlotIsReadInsideTheCountersNotification) {
  for (uint16_t port : {11, 12, 13}) {
    exchanger->emtKeyIs(Emt::Key(6, {}, {}, port, 0, Calyx::IntfId("et1")));
    exchanger->counterProcessedPacketInc(1);
  }
  EXPECT_EQ(log.events, (std::vector<std::string>{"processed:11", "processed:12", "processed:13"}));
  EXPECT_EQ(exchanger->counterProcessedPacket(), 3u);
}

}  // namespace
