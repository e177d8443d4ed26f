// mod-gen as other tools drive it: its files checked frame by frame, its determinism, its command-line
// errors.

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/LoopbackReceiver.h"
#include "tests/support/MirroredFrameReader.h"
#include "tests/support/PcapRecords.h"
#include "tools/common/DropFrameBuilder.h"

using namespace Calyx;
using Calyx::Test::readMirrored;

namespace {

std::string modGenPath() {
  // ctest puts the tools on PATH; run by hand, the tool sits beside the tests folder.
  std::filesystem::path const self = std::filesystem::read_symlink("/proc/self/exe");
  std::filesystem::path const beside = self.parent_path().parent_path() / "tools" / "mod-gen";
  return std::filesystem::exists(beside) ? beside.string() : "mod-gen";
}

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct ToolRun {
  int status = -1;
  std::string err;
  std::string out;
};

ToolRun modGen(std::string const& args) {
  std::string const base = ::testing::TempDir() + "modgen-" + std::to_string(getpid());
  std::string const cmd = modGenPath() + " " + args + " >" + base + ".out 2>" + base + ".err";
  ToolRun r;
  int const raw = std::system(cmd.c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = slurp(base + ".out");
  r.err = slurp(base + ".err");
  return r;
}

class ModGenTest : public ::testing::Test {
 protected:
  ~ModGenTest() override {
    for (auto const& f : files_) std::filesystem::remove(f);
  }
  std::string file(std::string const& name) {
    files_.push_back(::testing::TempDir() + "modgen-" + std::to_string(getpid()) + "-" + name + ".pcap");
    return files_.back();
  }

 private:
  std::vector<std::string> files_;
};

TEST_F(ModGenTest, WritesFlowsTimesDropsWellFormedFramesCutLikeTheChip) {
  std::string const out = file("contract");
  ToolRun const r = modGen("--out " + out + " --flows 20 --drops-per-flow 3 --seed 7");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("60 frame(s)"), std::string::npos) << r.err;
  auto const records = Calyx::Test::pcapRecords(out);
  ASSERT_EQ(records.size(), 60u);
  std::map<std::tuple<IpGenAddr, IpGenAddr, uint8_t, uint16_t, uint16_t>, int> drops;
  size_t v6 = 0;
  for (auto const& rec : records) {
    auto const& f = rec.bytes;
    ASSERT_EQ(rec.len, f.size());
    auto const d = readMirrored(f);
    EXPECT_EQ(d.rejection, "");  // checksums correct, nothing cut short
    size_t const carried = f.size() - 12;
    EXPECT_GE(d.packetSize, carried) << "the original is at least what the mirror carries";
    EXPECT_EQ(carried, std::min<size_t>(d.packetSize, 128)) << "cut at 128 bytes, never padded";
    EXPECT_TRUE(d.flow.vlanTags.empty());
    v6 += d.flow.srcIp.isV6();
    ++drops[std::tuple(d.flow.srcIp, d.flow.dstIp, d.flow.ipProto, d.flow.srcPort, d.flow.dstPort)];
  }
  EXPECT_EQ(drops.size(), 20u);
  for (auto const& [flow, n] : drops) EXPECT_EQ(n, 3);
  EXPECT_EQ(v6, 30u) << "families mix by default";
}

TEST_F(ModGenTest, OptionsShapeEveryFrame) {
  std::string const out = file("shaped");
  ToolRun const r = modGen("--out " + out +
                           " --flows 4 --family ipv6 --proto udp --vlan-tags 2 --size 100 --cut 82 --seed 1");
  ASSERT_EQ(r.status, 0) << r.err;
  auto const records = Calyx::Test::pcapRecords(out);
  ASSERT_EQ(records.size(), 4u);
  for (auto const& rec : records) {
    auto const d = readMirrored(rec.bytes);
    EXPECT_EQ(d.rejection, "");
    EXPECT_TRUE(d.flow.srcIp.isV6());
    EXPECT_EQ(d.flow.ipProto, 17);
    EXPECT_EQ(d.flow.vlanTags.size(), 2u);
    EXPECT_EQ(d.packetSize, 100);
    EXPECT_EQ(rec.bytes.size() - 12, 82u);
  }
}

TEST_F(ModGenTest, SameSeedSameFileOtherSeedOtherFile) {
  std::string const a = file("a"), b = file("b"), c = file("c");
  std::string const opts = " --flows 5 --drops-per-flow 2 --vlan-tags mixed --malformed all --seed ";
  ASSERT_EQ(modGen("--out " + a + opts + "42").status, 0);
  ASSERT_EQ(modGen("--out " + b + opts + "42").status, 0);
  ASSERT_EQ(modGen("--out " + c + opts + "43").status, 0);
  EXPECT_EQ(Calyx::Test::pcapRecords(a).size(), 10u + DropFrameBuilder::kMalformedKinds);
  EXPECT_EQ(slurp(a), slurp(b));
  EXPECT_NE(slurp(a), slurp(c));
}

TEST_F(ModGenTest, BadArgumentsNameTheOptionAndFail) {
  struct Case {
    std::string args;
    std::string named;
  };
  std::string const out = file("never");
  for (Case const& c :
       std::vector<Case>{{"--out " + out + " --flows 0", "--flows"},
                         {"--out " + out + " --drops-per-flow x", "--drops-per-flow"},
                         {"--out " + out + " --family ipv5", "--family"},
                         {"--out " + out + " --vlan-tags 3", "--vlan-tags"},
                         {"--out " + out + " --cut 64", "--cut"},
                         {"--out " + out + " --size 200-100", "--size"},
                         {"--out " + out + " --malformed ipv4-nonsense", "--malformed"},
                         {"--out " + out + " --rate", "--rate"},
                         {"--out " + out + " --bogus 1", "--bogus"},
                         {"--flows 3", "--out"},
                         {"--out " + out + " --interface lo", "--interface"},
                         // A reason needs report datagrams: mirrored frames have no room for it.
                         {"--out " + out + " --reason 0x5", "carry no drop reason"},
                         {"--reports --out " + out + " --reason 0xZZ", "--reason"},
                         {"--reports --out " + out + " --reason 0x" + std::string(33, '1'), "--reason"},
                         {"--reports --out " + out + " --cut 90", "--cut"},
                         {"--reports --out " + out + " --malformed all", "--malformed"},
                         {"--collector 127.0.0.1:9", "--collector requires --reports"},
                         {"--reports --collector localhost:9", "--collector"},
                         {"--reports --collector [::1]:0", "--collector"}}) {
    ToolRun const r = modGen(c.args);
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_NE(r.err.find(c.named), std::string::npos) << c.args << ": " << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(out));
  ToolRun const unwritable = modGen("--out /nonexistent-dir/x.pcap");
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_NE(unwritable.err.find("/nonexistent-dir/x.pcap"), std::string::npos) << unwritable.err;
}

// --reports: what the agent would send for the capture the same options make, with the reasons asked for.
TEST_F(ModGenTest, ReportsAreTheAgentsForTheSameFlowsWithTheReasonsInTurn) {
  Calyx::Test::LoopbackReceiver rx(AF_INET6);
  ASSERT_TRUE(rx.bound());
  std::string const opts = " --flows 4 --vlan-tags mixed --seed 3";
  std::string const frames = file("frames"), reports = file("reports");
  ASSERT_EQ(modGen("--out " + frames + opts).status, 0);
  std::string const reasons = " --reason 0x2a,0x80000000000000000000000000000001";
  ToolRun const sent = modGen("--reports --collector [::1]:" + std::to_string(rx.port()) + reasons + opts);
  ASSERT_EQ(sent.status, 0) << sent.err;
  EXPECT_NE(sent.err.find("sent 8 report(s) (START 4, STOP 4)"), std::string::npos) << sent.err;
  ToolRun const written = modGen("--reports --out " + reports + reasons + " --report-port 7000" + opts);
  ASSERT_EQ(written.status, 0) << written.err;

  auto const mirrored = Calyx::Test::pcapRecords(frames);
  auto const captured = Calyx::Test::pcapRecords(reports);
  ASSERT_EQ(mirrored.size(), 4u);
  ASSERT_EQ(captured.size(), 8u);
  for (size_t i = 0; i < 8; ++i) {
    SCOPED_TRACE("report " + std::to_string(i));
    auto const datagram = rx.receive();
    ASSERT_TRUE(datagram);
    auto const& r = datagram->bytes;
    // In the file: the same bytes in UDP over IPv4 to the port asked for.
    auto const& frame = captured[i].bytes;
    ASSERT_EQ(frame.size(), 14 + 20 + 8 + r.size());
    EXPECT_EQ((frame[36] << 8) | frame[37], 7000);
    EXPECT_TRUE(std::equal(r.begin(), r.end(), frame.begin() + 42));

    auto const drop = readMirrored(mirrored[i % 4].bytes);
    EXPECT_EQ(r[0], i < 4 ? 0 : 1) << "every START, then every STOP";
    uint64_t timestamp = 0;
    for (size_t b = 1; b <= 8; ++b) timestamp = timestamp << 8 | r[b];
    EXPECT_EQ(timestamp, drop.timestamp);
    std::vector<uint8_t> reason(r.begin() + 9, r.begin() + 25);
    std::vector<uint8_t> expected(16, 0);
    if (i % 2 == 0) expected[15] = 0x2a;
    if (i % 2 == 1) expected[0] = 0x80, expected[15] = 1;
    EXPECT_EQ(reason, expected) << "the flows take the reasons in turn";
    // The sample: the dropped frame as the mirror carried it (its MACs, then from its own EtherType on).
    auto const& m = mirrored[i % 4].bytes;
    std::vector<uint8_t> sample(m.begin(), m.begin() + 12);
    sample.insert(sample.end(), m.begin() + 24, m.end());
    sample.resize(std::min<size_t>(sample.size(), 80));
    ASSERT_EQ(r[25], sample.size());
    EXPECT_EQ(std::vector<uint8_t>(r.begin() + 26, r.end()), sample);
  }
}

TEST_F(ModGenTest, HelpExplainsEveryOptionAndKind) {
  ToolRun const r = modGen("--help");
  EXPECT_EQ(r.status, 0);
  for (char const* option : {"--out", "--interface", "--rate", "--flows", "--drops-per-flow", "--family",
                             "--proto", "--vlan-tags", "--size", "--cut", "--malformed", "--malformed-count",
                             "--seed", "--reports", "--reason", "--collector", "--report-port"}) {
    EXPECT_NE(r.out.find(option), std::string::npos) << option;
  }
  for (MalformedKind kind : DropFrameBuilder::kAllMalformedKinds) {
    EXPECT_NE(r.out.find(DropFrameBuilder::name(kind)), std::string::npos) << DropFrameBuilder::name(kind);
  }
}

}  // namespace
