#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropCollector.h"
#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "testkit/TempStateDir.h"

using namespace MirrorOnDrop;
using Calyx::IntfId;
using Calyx::IpGenAddr;

namespace {

// The feature's tables, made through their factories in a state directory of the test's own.
class FeatureTablesTest : public ::testing::Test {
 protected:
  static Emt::Key key(uint16_t port, char const* intf) {
    return Emt::Key(FlowKey(17, *IpGenAddr::parse("10.0.0.1"), *IpGenAddr::parse("10.0.0.2"), port, 53),
                    IntfId(intf));
  }
  Calyx::Test::TempStateDir stateDir;
  std::string const& stateDir_ = stateDir.path();
};

TEST_F(FeatureTablesTest, EmtRowsKeyedByFlowThenInterface) {
  auto config = Emt::configFactory("emtConfig");
  EXPECT_TRUE(std::filesystem::exists(stateDir_ + "/emtConfig"));
  config->entryIs(Emt::EntryConfig(key(2, "et1")));
  config->entryIs(Emt::EntryConfig(key(1, "et2")));
  config->entryIs(Emt::EntryConfig(key(1, "et1")));
  EXPECT_FALSE(config->entryIs(Emt::EntryConfig(key(1, "et1"))));  // same row again: nothing changes
  EXPECT_EQ(config->entryCount(), 3u);
  std::vector<Emt::Key> order;
  for (auto k = config->entryFirst(); k; k = config->entryNext(*k)) order.push_back(*k);
  EXPECT_EQ(order, (std::vector<Emt::Key>{key(1, "et1"), key(1, "et2"), key(2, "et1")}));
  EXPECT_FALSE(config->entryDel(key(9, "et1")));
  config->entryDelAll();
  EXPECT_EQ(config->entryCount(), 0u);
  config->entryDelAll();
}

TEST_F(FeatureTablesTest, EmtTextForms) {
  Emt::EntryStatus const s(key(7, "Ethernet4"), true);
  EXPECT_EQ(Emt::EntryStatus(s.valueToStrep()), s);
  EXPECT_EQ(Emt::Key(key(7, "et1").valueToStrep()), key(7, "et1"));
  EXPECT_NE(key(1, "et1").hash(), key(1, "et2").hash());
  std::string text = s.valueToStrep();
  text.replace(text.find("True"), 4, "Maybe");
  EXPECT_THROW(Emt::EntryStatus{std::string_view(text)}, std::range_error);
}

// Rows an earlier run's file holds are checked as they are loaded: a flow mixing address families, an
// installed flag that is no boolean, or a name length beyond its storage (on which the key's own code throws)
// is damage, never a stop of the agent at start (the adapter's assertion, an escaping exception).
TEST_F(FeatureTablesTest, RowsReadBackAreCheckedBeforeTheFeatureSeesThem) {
  Emt::Key const mixed(FlowKey(17, *IpGenAddr::parse("10.0.0.1"), *IpGenAddr::parse("::2"), 1, 53),
                       IntfId("et1"));
  Emt::EntryStatus notBoolean(key(1, "et1"), true);
  std::memset(reinterpret_cast<char*>(&notBoolean) + sizeof(Emt::Key), 7, 1);
  Emt::configFactory("emtConfig")->entryIs(Emt::EntryConfig(mixed));
  Emt::statusFactory("emtStatus")->entryIs(notBoolean);
  Collector::statusFactory("collectorStatus")->entryIs(Collector::EntryStatus(Collector::Key("e1", "c1")));
  Calyx::SegmentGeometry const g{sizeof(Collector::Key), sizeof(Collector::EntryStatus), 1};
  std::fstream f(stateDir_ + "/collectorStatus", std::ios::in | std::ios::out | std::ios::binary);
  uint32_t state = 0, length = 512;
  for (size_t slot = g.slotOffset(0);
       f.seekg(long(slot + offsetof(Calyx::SlotHeader, state))) && f.read(reinterpret_cast<char*>(&state), 4);
       slot += g.slotSize())
    if (state == 1) f.seekp(long(slot + g.keyOffset())).write(reinterpret_cast<char const*>(&length), 4);
  f.close();
  std::vector<std::string> problems;
  Calyx::sharedTableCorruptionHandlerIs(
      [&](Calyx::SharedTableCorruption const& c) { problems.push_back(c.table + ": " + c.problem); });
  EXPECT_EQ(Emt::configFactory("emtConfig")->entryCount(), 0u);
  EXPECT_EQ(Emt::statusFactory("emtStatus")->entryCount(), 0u);
  EXPECT_EQ(Collector::statusFactory("collectorStatus")->entryCount(), 0u);
  Calyx::sharedTableCorruptionHandlerIs({});
  ASSERT_EQ(problems.size(), 3u);
  EXPECT_NE(problems[2].find("holds a record that cannot be read: expected size <= 128, instead got 512"),
            std::string::npos)
      << problems[2];
  EXPECT_NE(problems[0].find("emtConfig: slot"), std::string::npos);
  EXPECT_NE(problems[0].find("flow of source address family 1 and destination address family 2"),
            std::string::npos)
      << problems[0];
  EXPECT_NE(problems[1].find("isInstalled byte 7 is neither 0 nor 1"), std::string::npos) << problems[1];
}

TEST_F(FeatureTablesTest, ReportStatusPublishesBothTables) {
  auto status = Report::statusFactory("reportStatus");
  Report::Key const flow(key(1, "et1").flowKey());
  status->entryIs(Report::EntryStatus(flow, Report::ReportType::START, Report::Report()));
  status->entryIntfIs(Report::Interface::Entry(Report::Interface::Key(IntfId("et1")), 1));
  EXPECT_TRUE(std::filesystem::exists(stateDir_ + "/reportStatus.entry"));
  EXPECT_TRUE(std::filesystem::exists(stateDir_ + "/reportStatus.entryIntf"));
  // A new writer over the same segments sees what the previous one left.
  status.reset();
  auto again = Report::statusFactory("reportStatus");
  ASSERT_NE(again->entry(flow), nullptr);
  EXPECT_EQ(again->entryIntf(Report::Interface::Key(IntfId("et1")))->countReport(), 1);
}

TEST_F(FeatureTablesTest, CollectorClearKeepsKeys) {
  auto status = Collector::statusFactory("collectorStatus");
  Collector::Key const a("exp", "c1"), b("exp", "c2");
  status->entryIs(Collector::EntryStatus(a, 131, 1, 0));
  status->entryIs(Collector::EntryStatus(b, 262, 1, 1));
  for (auto k = status->entryFirst(); k; k = status->entryNext(*k))
    status->entryIs(Collector::EntryStatus(*k));
  EXPECT_EQ(status->entryCount(), 2u);
  EXPECT_EQ(*status->entry(b), Collector::EntryStatus(b));
}

}  // namespace
