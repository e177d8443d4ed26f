// mod-gen as other tools drive it: its files checked frame by frame, its determinism, its command-line
// errors.

#include <gtest/gtest.h>

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
  for (Case const& c : std::vector<Case>{{"--out " + out + " --flows 0", "--flows"},
                                         {"--out " + out + " --drops-per-flow x", "--drops-per-flow"},
                                         {"--out " + out + " --family ipv5", "--family"},
                                         {"--out " + out + " --vlan-tags 3", "--vlan-tags"},
                                         {"--out " + out + " --cut 64", "--cut"},
                                         {"--out " + out + " --size 200-100", "--size"},
                                         {"--out " + out + " --malformed ipv4-nonsense", "--malformed"},
                                         {"--out " + out + " --rate", "--rate"},
                                         {"--out " + out + " --bogus 1", "--bogus"},
                                         {"--flows 3", "--out"},
                                         {"--out " + out + " --interface lo", "--interface"}}) {
    ToolRun const r = modGen(c.args);
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_NE(r.err.find(c.named), std::string::npos) << c.args << ": " << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(out));
  ToolRun const unwritable = modGen("--out /nonexistent-dir/x.pcap");
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_NE(unwritable.err.find("/nonexistent-dir/x.pcap"), std::string::npos) << unwritable.err;
}

TEST_F(ModGenTest, HelpExplainsEveryOptionAndKind) {
  ToolRun const r = modGen("--help");
  EXPECT_EQ(r.status, 0);
  for (char const* option :
       {"--out", "--interface", "--rate", "--flows", "--drops-per-flow", "--family", "--proto", "--vlan-tags",
        "--size", "--cut", "--malformed", "--malformed-count", "--seed"}) {
    EXPECT_NE(r.out.find(option), std::string::npos) << option;
  }
  for (MalformedKind kind : DropFrameBuilder::kAllMalformedKinds) {
    EXPECT_NE(r.out.find(DropFrameBuilder::name(kind)), std::string::npos) << DropFrameBuilder::name(kind);
  }
}

}  // namespace
