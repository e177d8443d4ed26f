#include "platform/entity/HwFlowTrackingExporterConfig.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Calyx;
using namespace Calyx::HwFlowTracking;

namespace {

class Recorder : public ExporterConfig::Reactor {
 public:
  using Reactor::Reactor;
  void handleCollectorIpAndPort(String const& name) override { log.push_back("v4:" + name); }
  void handleCollectorIp6AndPort(String const& name) override { log.push_back("v6:" + name); }
  std::vector<std::string> log;
};

IpAndPort v4(uint32_t host, uint16_t port) {
  return IpAndPort(Ip4Addr::fromHost(host), port);
}
IpAndPort v6(char const* text, uint16_t port) {
  return IpAndPort(*Ip6Addr::parse(text), port);
}

class ExporterConfigTest : public ::testing::Test {
 protected:
  Ptr<ExporterConfig> exp = make<ExporterConfig>("exp1");
  Recorder rec{exp};
};

TEST_F(ExporterConfigTest, CollectorsNotifyPerKeyInTheirOwnFamily) {
  exp->collectorIpAndPortIs("c1", v4(0x0a000002, 6343));
  exp->collectorIpAndPortIs("c1", v4(0x0a000002, 6343));      // same value: silent
  exp->collectorIpAndPortIs("c1", v4(0x0a000002, 6344));      // new port
  exp->collectorIp6AndPortIs("c1", v6("2001:db8::2", 6343));  // same name in the other family
  exp->collectorIpAndPortDel("nope");
  exp->collectorIpAndPortDel("c1");
  EXPECT_EQ(rec.log, (std::vector<std::string>{"v4:c1", "v4:c1", "v6:c1", "v4:c1"}));
  EXPECT_FALSE(exp->collectorIpAndPort("c1"));
  ASSERT_TRUE(exp->collectorIp6AndPort("c1"));
  EXPECT_EQ(exp->collectorIp6AndPort("c1")->port(), 6343);
  EXPECT_TRUE(exp->collectorIp6AndPort("c1")->ip().isV6());
}

TEST_F(ExporterConfigTest, DelAllNotifiesEveryKeyInOrderAndTheWalkSurvivesChanges) {
  for (char const* name : {"b", "a", "c"}) exp->collectorIp6AndPortIs(name, v6("::1", 1));
  std::vector<String> walked;
  for (auto n = exp->collectorIp6AndPortFirst(); n; n = exp->collectorIp6AndPortNext(*n)) {
    walked.push_back(*n);
    exp->collectorIp6AndPortDel(*n);  // deleting the member under the cursor
  }
  EXPECT_EQ(walked, (std::vector<String>{"a", "b", "c"}));

  for (char const* name : {"y", "x"}) exp->collectorIpAndPortIs(name, v4(1, 1));
  rec.log.clear();
  exp->collectorIpAndPortDelAll();
  EXPECT_EQ(rec.log, (std::vector<std::string>{"v4:x", "v4:y"}));
  EXPECT_EQ(exp->collectorIpAndPortCount(), 0u);
}

}  // namespace
