// A storm of new flows through the real binaries, on the virtual clock: a hundred thousand flows dropping at
// once must each get one START and one STOP report, and the tables must end as the STOP bookkeeping leaves
// them; past the agent's flow cap, new flows are refused and counted while every accepted one is still
// reported. No timing is asserted here: the storm benchmark measures the cost per flow.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/shm/SharedTableReader.h"
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
  // The agent's configuration replaying the capture; extra lines go into [agent].
  std::string config(std::string const& agentLines = "", std::string const& inactiveTimeout = "5.0",
                     std::string const& clock = "virtual") {
    std::ostringstream c;
    c << "[agent]\nstate_dir = \"" << state.path() << "\"\n"
      << agentLines << "[hardware]\nmirror_on_drop = true\nexact_match = true\n"
      << "[capture]\nreplay = \"storm.pcap\"\nreplay_interface = \"Ethernet1\"\nreplay_clock = \"" << clock
      << "\"\n"
      << "[flow_tracking]\nenabled = true\n[flow_tracking.trackers.t1]\n"
      << "active_interval = 1.0\ninactive_timeout = " << inactiveTimeout << "\n"
      << "[flow_tracking.trackers.t1.exporters.e1]\nsource_ipv4 = \"127.0.0.1\"\n"
      << "collectors = { c1 = \"127.0.0.1:" << sink.port() << "\" }\n"
      << "[trace]\nlevels = \"*=0-1\"\n";
    std::ofstream(work + "/agent.toml") << c.str();
    return work + "/agent.toml";
  }
  // Replays the capture to its end; extra lines go into [agent].
  Calyx::Test::ProgramResult replay(std::string const& agentLines = "") {
    auto r = programRun("mod-agent", {"--config", config(agentLines)}, work, 600);
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

// Stopped with more flows on one interface than its 16-bit flow counter holds (a replay as fast as it goes on
// the real clock, so that the flows wait for the stop), the turn-off sends every STOP but can never complete:
// the wrapped counter's exact-match entries stay. A second SIGTERM ends the stop at once (as the deadline
// would), and the summary says what it closed, what it left and the entries it could not remove.
TEST_F(StormTest, AStopThatCannotCompleteEndsOnASecondSignalAndSaysWhatItLeft) {
  capture(66000);
  Calyx::Test::Program agent("mod-agent", {"--config", config("stop_timeout = 600\n", "3600", "max")}, work);
  for (int i = 0; i < 6000 && sink.datagrams() < 66000; ++i) usleep(10000);  // every START is out
  ASSERT_EQ(sink.datagrams(), 66000u) << agent.err();
  agent.signal(SIGTERM);
  for (int i = 0; i < 6000 && sink.datagrams() < 132000; ++i) usleep(10000);  // every STOP is out
  ASSERT_EQ(sink.datagrams(), 132000u) << agent.err();
  EXPECT_FALSE(agent.wait(0.5)) << "the turn-off completed: " << agent.err();
  agent.signal(SIGTERM);
  ASSERT_EQ(agent.wait(30), 0) << agent.err();
  sink.settle();
  EXPECT_EQ(startThenStop(), std::make_pair(size_t(66000), size_t(0)));
  // 66,000 = 65,536 + 464: the 464th STOP took the counter to zero and away; the 65,536 flows after it keep
  // their exact-match entries.
  EXPECT_NE(agent.err().find("stop: 66000 flows closed, 0 left (a second SIGTERM; the next agent on " +
                             state.path() + " sends their STOP reports; 65536 exact-match entries left)"),
            std::string::npos)
      << agent.err();
}

}  // namespace
