// The Wireshark dissector, run by tshark on captures of both kinds of packet: mirrored drop frames made by
// mod-gen, and report datagrams this test builds from known values. Skipped when tshark is not installed.
//
// What a user sees is checked as well as the fields: the packet list's Protocol and Info columns name the
// mirror and the dropped flow, drop timestamps read as dates, and a dropped frame cut short by the chip is
// explained by a note instead of being flagged by Wireshark's own length checks.
//
// tshark runs with HOME in a fresh directory, so neither a personal configuration (another report port) nor
// an installed copy of the dissector (two protocols of one name) changes what it shows; as root it only
// warns.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropType.h"
#include "platform/io/PcapFileWriter.h"
#include "tests/support/MirroredFrameReader.h"
#include "tests/support/PcapRecords.h"
#include "tests/support/Program.h"
#include "tools/common/DropFrameBuilder.h"

using namespace Calyx;
using MirrorOnDrop::Report::Report;

namespace {

std::string const kScript = CALYX_SOURCE_DIR "/contrib/wireshark/mirror_on_drop.lua";

std::vector<std::string> split(std::string const& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream is(text);
  for (std::string part; std::getline(is, part, separator);) parts.push_back(part);
  return parts;
}

IpGenAddr ip(char const* text) {
  return *IpGenAddr::parse(text);
}

// A drop timestamp as Wireshark shows an absolute time in UTC: "Nov 14, 2023 22:13:20.002000000 UTC".
std::string dateText(uint64_t ns) {
  time_t const seconds = time_t(ns / 1000000000);
  tm t{};
  gmtime_r(&seconds, &t);
  char text[64], fraction[16];
  std::strftime(text, sizeof text, "%b %e, %Y %H:%M:%S", &t);
  std::snprintf(fraction, sizeof fraction, ".%09llu UTC", (unsigned long long)(ns % 1000000000));
  return text + std::string(fraction);
}

// "TCP 10.1.2.3:1234 → 10.4.5.6:80", IPv6 addresses in brackets.
std::string flowText(DropFlow const& f) {
  auto const at = [&](IpGenAddr const& a, uint16_t port) {
    std::string const text(a.stringValue());
    return (a.isV6() ? "[" + text + "]" : text) + ":" + std::to_string(port);
  };
  return std::string(f.ipProto == 6 ? "TCP " : "UDP ") + at(f.srcIp, f.srcPort) + " \u2192 " +
         at(f.dstIp, f.dstPort);
}

// A UDP datagram from port 40000 to the given port, in Ethernet and IPv4 or IPv6 by the addresses' family.
std::vector<uint8_t> datagram(IpGenAddr src, IpGenAddr dst, uint16_t port,
                              std::vector<uint8_t> const& payload) {
  DropFlow flow{*EthAddr::parse("02:00:00:00:00:01"),
                *EthAddr::parse("02:00:00:00:00:02"),
                {},
                src,
                dst,
                17,
                40000,
                port};
  size_t const headers = DropFrameBuilder::headersLength(flow);
  auto frame = DropFrameBuilder::droppedFrame(flow, headers + payload.size());
  std::copy(payload.begin(), payload.end(), frame.begin() + long(headers));
  return frame;
}

// A report packet: the type byte, then the report as stored, up to the end of its sample.
std::vector<uint8_t> reportPacket(uint8_t type, Report const& report) {
  std::vector<uint8_t> packet{type};
  packet.insert(packet.end(), report.bytes(), report.bytes() + Report::kPayloadOffset + report.dataSize());
  return packet;
}

class WiresharkDissectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (Calyx::Test::programRun("tshark", {"--version"}).status != 0)
      GTEST_SKIP() << "tshark is not installed";
    char d[] = "/tmp/dissector-XXXXXX";
    ASSERT_TRUE(mkdtemp(d));
    dir = d;
  }
  void TearDown() override {
    if (!dir.empty()) std::filesystem::remove_all(dir);
  }

  std::string capture(std::vector<std::vector<uint8_t>> const& frames) {
    std::string const path = dir + "/reports.pcap";
    PcapFileWriter writer;
    EXPECT_TRUE(writer.open(path)) << writer.error();
    for (size_t i = 0; i < frames.size(); ++i) EXPECT_TRUE(writer.write(frames[i], 1700000000.0 + double(i)));
    EXPECT_TRUE(writer.close()) << writer.error();
    return path;
  }

  // The fields tshark shows, one row per packet; a field seen more than once has its values joined by ','.
  std::vector<std::vector<std::string>> tshark(std::string const& path,
                                               std::vector<std::string> const& fields,
                                               std::vector<std::string> const& options = {}) {
    std::vector<std::string> args = {
        "-u", "XDG_CONFIG_HOME", "HOME=" + dir, "tshark",      "-X", "lua_script:" + kScript, "-r", path,
        "-T", "fields",          "-E",          "separator=|", "-E", "occurrence=a"};
    args.insert(args.end(), options.begin(), options.end());
    for (auto const& f : fields) args.insert(args.end(), {"-e", f});
    auto const run = Calyx::Test::programRun("env", args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err.find("Lua"), std::string::npos) << run.err;
    std::vector<std::vector<std::string>> rows;
    for (auto const& line : split(run.out, '\n')) {
      rows.push_back(split(line, '|'));
      rows.back().resize(fields.size());
    }
    return rows;
  }

  std::string dir;
};

TEST_F(WiresharkDissectorTest, MirroredDropFramesShowTheMirrorTheDroppedFlowAndExplainTheCut) {
  for (char const* tags : {"0", "1", "2"}) {
    SCOPED_TRACE(std::string("VLAN tags: ") + tags);
    std::string const path = dir + "/drops-" + tags + ".pcap";
    // Sizes on both sides of the 128-byte cut, so that some frames are whole and most are cut short.
    auto const gen =
        Calyx::Test::programRun("mod-gen", {"--out", path, "--flows", "8", "--vlan-tags", tags, "--family",
                                            "mixed", "--proto", "mixed", "--size", "64-400", "--seed", "11"});
    ASSERT_EQ(gen.status, 0) << gen.err;
    auto const rows =
        tshark(path, {"mod.size", "mod.timestamp", "mod.ethertype", "ip.src", "ipv6.src", "tcp.srcport",
                      "udp.dstport", "vlan.id", "mod.time", "mod.kept", "_ws.col.Protocol", "_ws.col.Info",
                      "_ws.expert.message", "udp.length", "ip.len"});
    auto const records = Calyx::Test::pcapRecords(path);
    ASSERT_EQ(rows.size(), records.size());
    size_t cut = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
      auto const d = Calyx::Test::readMirrored(records[i].bytes);
      ASSERT_EQ(d.rejection, "") << i;
      ASSERT_EQ(d.flow.vlanTags.size(), size_t(tags[0] - '0')) << i;
      auto const& r = rows[i];
      EXPECT_EQ(r[0], std::to_string(d.packetSize)) << i;
      EXPECT_EQ(r[1], std::to_string(d.timestamp)) << i;
      char const* inner = d.flow.vlanTags.empty() ? (d.flow.srcIp.isV6() ? "0x86dd" : "0x0800") : "0x8100";
      EXPECT_EQ(r[2], inner) << i;
      EXPECT_EQ(r[d.flow.srcIp.isV6() ? 4 : 3], std::string(d.flow.srcIp.stringValue())) << i;
      EXPECT_EQ(d.flow.ipProto == 6 ? r[5] : r[6],
                std::to_string(d.flow.ipProto == 6 ? d.flow.srcPort : d.flow.dstPort))
          << i;
      std::string ids;
      for (uint16_t tag : d.flow.vlanTags) ids += (ids.empty() ? "" : ",") + std::to_string(tag & 0x0fff);
      EXPECT_EQ(r[7], ids) << i;
      EXPECT_EQ(r[8], dateText(d.timestamp)) << i;
      size_t const kept = records[i].bytes.size() - 12;
      EXPECT_EQ(r[9], std::to_string(kept)) << i;
      // The list shows the mirror and the dropped flow, whatever the dropped frame's own dissectors wrote.
      EXPECT_EQ(r[10], "MOD") << i;
      std::string const size = std::to_string(d.packetSize) + " bytes";
      bool const isCut = d.packetSize > kept;
      cut += isCut;
      EXPECT_EQ(r[11], "Dropped " + flowText(d.flow) + ", " + size +
                           (isCut ? " (" + std::to_string(kept) + " kept)" : ""))
          << i;
      // The cut is a note, and the only one: no length error from Wireshark's IP or UDP dissector, which see
      // the dropped frame's own lengths.
      EXPECT_EQ(r[12], isCut ? "Cut short by the mirror: " + std::to_string(kept) +
                                   " of the dropped frame's " + size + " kept; its lengths point past the cut"
                             : "")
          << i;
      size_t const l2 = 14 + 4 * d.flow.vlanTags.size();
      if (d.flow.ipProto == 17) {
        EXPECT_EQ(r[13], std::to_string(d.packetSize - l2 - (d.flow.srcIp.isV6() ? 40 : 20))) << i;
      }
      if (!d.flow.srcIp.isV6()) {
        EXPECT_EQ(r[14], std::to_string(d.packetSize - l2)) << i;
      }
    }
    EXPECT_GT(cut, 0u);
    EXPECT_LT(cut, rows.size());
    // mod-gen's transport checksums are the dropped packet's own: Wireshark, asked to check them, agrees on
    // every frame kept whole (1: good).
    auto const checked = tshark(path, {"tcp.checksum.status", "udp.checksum.status", "mod.kept", "mod.size"},
                                {"-o", "tcp.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE"});
    for (auto const& r : checked) {
      if (r[2] == r[3]) {
        EXPECT_EQ(r[0] + r[1], "1");
      }
    }
  }
}

TEST_F(WiresharkDissectorTest, ReportDatagramsDecodeEveryFieldAndTheSampleAsAFrame) {
  DropFlow const tcp4{*EthAddr::parse("00:00:5e:00:53:01"),
                      *EthAddr::parse("00:00:5e:00:53:02"),
                      {},
                      ip("10.1.2.3"),
                      ip("10.4.5.6"),
                      6,
                      1234,
                      80};
  DropFlow const udp6{*EthAddr::parse("00:00:5e:00:53:03"),
                      *EthAddr::parse("00:00:5e:00:53:04"),
                      {100},
                      ip("2001:db8::a"),
                      ip("2001:db8::b"),
                      17,
                      33333,
                      44444};  // ports no dissector claims: the sample's payload is a byte pattern
  // A timestamp of eight distinct bytes, beyond what a double holds exactly, and reason words with high bits.
  uint64_t const timestamp = 0x1796f4d2a0c3b5e7;
  struct Case {
    uint8_t type;
    uint8_t size;
    char const* sender;
    DropFlow const* flow;
  } const cases[] = {{0, 0, "192.0.2.1", &tcp4},
                     {1, 60, "192.0.2.1", &tcp4},
                     {0, 80, "192.0.2.1", &udp6},
                     {1, 80, "2001:db8::1", &tcp4}};
  std::vector<std::vector<uint8_t>> frames;
  for (size_t i = 0; i < std::size(cases); ++i) {
    Report r(MirrorOnDrop::Drop::Timestamp(timestamp + i),
             MirrorOnDrop::Drop::Reason(1, 0x80000000, 0xdeadbeef, uint32_t(i)), 0);
    auto const sample = DropFrameBuilder::droppedFrame(*cases[i].flow, 300);
    r.payloadIs(sample.data(), cases[i].size);
    IpGenAddr const sender = ip(cases[i].sender);
    IpGenAddr const collector = ip(sender.isV6() ? "2001:db8::2" : "192.0.2.2");
    frames.push_back(datagram(sender, collector, 6343, reportPacket(cases[i].type, r)));
  }
  auto const rows =
      tshark(capture(frames), {"modreport.type", "modreport.timestamp", "modreport.reason",
                               "modreport.datasize", "ip.src", "tcp.srcport", "_ws.col.Source",
                               "_ws.col.Info", "modreport.time", "_ws.col.Protocol", "_ws.expert.severity"});
  ASSERT_EQ(rows.size(), std::size(cases));
  for (size_t i = 0; i < rows.size(); ++i) {
    auto const& r = rows[i];
    auto const& c = cases[i];
    bool const v6 = ip(c.sender).isV6();
    EXPECT_EQ(r[0], std::to_string(c.type)) << i;
    EXPECT_EQ(r[1], std::to_string(timestamp + i)) << i;
    EXPECT_EQ(r[2], "0000000180000000deadbeef0000000" + std::to_string(i)) << i;
    EXPECT_EQ(r[3], std::to_string(c.size)) << i;
    // The sample is decoded as the dropped frame, behind the datagram's own IPv4 header if it has one.
    std::string const outer = v6 ? "" : std::string(c.sender);
    bool const sampleV4 = c.size && c.flow == &tcp4;
    EXPECT_EQ(r[4], sampleV4 ? outer + (v6 ? "" : ",") + "10.1.2.3" : outer) << i;
    EXPECT_EQ(r[5], sampleV4 ? "1234" : "") << i;
    // The packet list keeps the report's sender, and its summary names the dropped flow.
    EXPECT_EQ(r[6], c.sender) << i;
    EXPECT_EQ(r[7], std::string(c.type ? "STOP" : "START") + " report" +
                        (c.size ? ": " + flowText(*c.flow) : "") + ", sample " + std::to_string(c.size) +
                        " bytes")
        << i;
    EXPECT_EQ(r[8], dateText(timestamp + i)) << i;
    EXPECT_EQ(r[9], "MODREPORT") << i;
    // A sample is cut at 80 bytes: no error for the lengths that point past it (8388608: expert error).
    EXPECT_EQ(r[10].find("8388608"), std::string::npos) << i << ": " << r[10];
  }
}

TEST_F(WiresharkDissectorTest, MalformedPacketsAreMarkedAndTheirSamplesLeftAlone) {
  DropFlow const flow{{}, {}, {}, ip("10.1.2.3"), ip("10.4.5.6"), 6, 1234, 80};
  IpGenAddr const sender = ip("192.0.2.1"), collector = ip("192.0.2.2");
  Report full(MirrorOnDrop::Drop::Timestamp(7), MirrorOnDrop::Drop::Reason(), 0);
  auto const sample = DropFrameBuilder::droppedFrame(flow, 200);
  full.payloadIs(sample.data(), 80);
  auto tooBig = reportPacket(0, full);
  tooBig[Report::kDataSizeOffset + 1] = 81;
  tooBig.push_back(0);
  auto beyond = reportPacket(0, full);
  beyond.resize(beyond.size() - 1);
  auto const rows =
      tshark(capture({DropFrameBuilder::malformedFrame(MalformedKind::undersizedEthernet, flow, 1),
                      datagram(sender, collector, 6343, std::vector<uint8_t>(25, 0)),
                      datagram(sender, collector, 6343, tooBig), datagram(sender, collector, 6343, beyond)}),
             {"mod.short", "modreport.short", "modreport.size", "tcp.srcport"});
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"1", "", "", ""}));  // 6 of the header's 12 bytes
  EXPECT_EQ(rows[1], (std::vector<std::string>{"", "1", "", ""}));  // 25 of the report's 26 bytes
  EXPECT_EQ(rows[2], (std::vector<std::string>{"", "", "1", ""}));  // 81 bytes of sample
  EXPECT_EQ(rows[3], (std::vector<std::string>{"", "", "1", ""}));  // 80 bytes said, 79 there
}

TEST_F(WiresharkDissectorTest, TheReportPortIsAPreference) {
  Report r(MirrorOnDrop::Drop::Timestamp(5), MirrorOnDrop::Drop::Reason(), 0);
  std::string const path = capture({datagram(ip("192.0.2.1"), ip("192.0.2.2"), 6343, reportPacket(0, r)),
                                    datagram(ip("192.0.2.1"), ip("192.0.2.2"), 9999, reportPacket(1, r))});
  EXPECT_EQ(tshark(path, {"modreport.type"}), (std::vector<std::vector<std::string>>{{"0"}, {""}}));
  // A changed port takes the dissector off the old one.
  EXPECT_EQ(tshark(path, {"modreport.type"}, {"-o", "modreport.port:9999"}),
            (std::vector<std::vector<std::string>>{{""}, {"1"}}));
}

}  // namespace
