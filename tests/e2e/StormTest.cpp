// A storm of new flows through the real binaries, on the virtual clock: a hundred thousand flows dropping at
// once must each get one START and one STOP report, and the tables must end as the STOP bookkeeping leaves
// them; past the agent's flow cap, new flows are refused and counted while every accepted one is still
// reported. No timing is asserted here: the storm benchmark measures the cost per flow.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/table/SharedTableReader.h"
#include "testkit/ReportSink.h"
#include "testkit/TempStateDir.h"
#include "tests/support/Program.h"

using namespace Calyx;
using Calyx::Test::programRun;

namespace {

class StormTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(sink.bound());
    char dir[] = "/tmp/mod-storm-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    work = dir;
  }
  void TearDown() override { std::filesystem::remove_all(work); }

  // n new flows, one drop each, 100,000 drops a second.
  void capture(int flows) {
    auto const r = programRun("mod-gen", {"--out", work + "/storm.pcap", "--flows", std::to_string(flows),
                                          "--rate", "100000", "--seed", "5"});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // Replays the capture; extra lines go into [agent].
  Calyx::Test::ProgramResult replay(std::string const& agentLines = "") {
    std::ostringstream c;
    c << "[agent]\nstate_dir = \"" << state.path() << "\"\n"
      << agentLines << "[hardware]\nmirror_on_drop = true\nexact_match = true\n"
      << "[capture]\nreplay = \"storm.pcap\"\nreplay_interface = \"Ethernet1\"\nreplay_clock = \"virtual\"\n"
      << "[flow_tracking]\nenabled = true\n[flow_tracking.trackers.t1]\n"
      << "active_interval = 1.0\ninactive_timeout = 5.0\n"
      << "[flow_tracking.trackers.t1.exporters.e1]\nsource_ipv4 = \"127.0.0.1\"\n"
      << "collectors = { c1 = \"127.0.0.1:" << sink.port() << "\" }\n"
      << "[trace]\nlevels = \"*=0-1\"\n";
    std::ofstream(work + "/agent.toml") << c.str();
    auto r = programRun("mod-agent", {"--config", work + "/agent.toml"}, work, 600);
    sink.settle();
    return r;
  }
  // Flows that got exactly one START then one STOP, and the number of reports that did not.
  std::pair<size_t, size_t> startThenStop() const {
    size_t good = 0, bad = 0;
    for (auto const& [report, types] : sink.tally()) (types == "SP" ? good : bad) += 1;
    return {good, bad};
  }
  size_t tableCount(char const* name) const {
    using ReportReader = SharedTableReader<MirrorOnDrop::Report::Key, MirrorOnDrop::Report::EntryStatus>;
    return ReportReader::forTable(name, state.path()).snapshot().size();
  }

  Calyx::Test::ReportSink sink{true};
  Calyx::Test::TempStateDir state;
  std::string work;
};

TEST_F(StormTest, AHundredThousandNewFlowsEachGetOneStartAndOneStop) {
  capture(100000);
  auto const r = replay();
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("flows 100000, flows refused 0; reports START 100000, STOP 100000"), std::string::npos)
      << r.err;
  EXPECT_EQ(startThenStop(), std::make_pair(size_t(100000), size_t(0)));
  EXPECT_EQ(tableCount("reportStatus.entry"), 0u);
  using IntfReader =
      SharedTableReader<MirrorOnDrop::Report::Interface::Key, MirrorOnDrop::Report::Interface::Entry>;
  EXPECT_TRUE(IntfReader::forTable("reportStatus.entryIntf", state.path()).snapshot().empty());
  // The interface's 16-bit flow counter wrapped once (100,000 = 65,536 + 34,464): the STOP of the flow that
  // brought it back to zero deleted it, and the 65,536 flows stopped after that leave their exact-match
  // entries behind, as the STOP bookkeeping defines, until the feature goes at the agent's exit.
  EXPECT_NE(r.err.find("65536 exact-match entries outlive their flows' STOP reports"), std::string::npos);
  using EmtReader = SharedTableReader<MirrorOnDrop::Emt::Key, MirrorOnDrop::Emt::EntryConfig>;
  EXPECT_TRUE(EmtReader::forTable("emtConfig", state.path()).snapshot().empty());
}

TEST_F(StormTest, PastTheFlowCapNewFlowsAreRefusedAndEveryAcceptedOneIsReported) {
  capture(3000);
  auto const r = replay("max_flows = 1000\n");
  ASSERT_EQ(r.status, 0) << r.err;
  // All 3,000 drop within 30 ms, long before the first flows are stopped: the first thousand are taken.
  EXPECT_NE(r.err.find("flows 1000, flows refused 2000; reports START 1000, STOP 1000"), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("[ERROR]: refusing new flows: the limit of 1000 live flows is reached"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(startThenStop(), std::make_pair(size_t(1000), size_t(0)));
  EXPECT_EQ(tableCount("reportStatus.entry"), 0u);
}

}  // namespace
