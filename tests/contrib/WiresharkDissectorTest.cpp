// The Wireshark dissector, run by tshark on captures of both kinds of packet: mirrored drop frames made by
// mod-gen, and report datagrams this test builds from known values. Skipped when tshark is not installed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropType.h"
#include "platform/io/PcapFileWriter.h"
#include "platform/types/IpHeader.h"
#include "tests/support/MirroredFrameReader.h"
#include "tests/support/PcapRecords.h"
#include "tests/support/Program.h"

using namespace Calyx;

namespace {

std::string const kScript = (std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() /
                             "contrib/wireshark/mirror_on_drop.lua")
                                .string();

// tshark's fields, one line per packet, columns split on '|'.
std::vector<std::vector<std::string>> tshark(std::string const& capture,
                                             std::vector<std::string> const& fields,
                                             std::string const& occurrence = "f") {
  std::string cmd = "tshark -X lua_script:" + kScript + " -r " + capture +
                    " -T fields -E separator='|' -E occurrence=" + occurrence;
  for (auto const& f : fields) cmd += " -e " + f;
  cmd += " 2>/dev/null";
  std::vector<std::vector<std::string>> rows;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return rows;
  char line[4096];
  while (std::fgets(line, sizeof line, p)) {
    std::string l(line);
    if (!l.empty() && l.back() == '\n') l.pop_back();
    std::vector<std::string> cols;
    std::istringstream is(l);
    for (std::string c; std::getline(is, c, '|');) cols.push_back(c);
    cols.resize(fields.size());
    rows.push_back(cols);
  }
  pclose(p);
  return rows;
}

class WiresharkDissectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::system("command -v tshark >/dev/null 2>&1") != 0) GTEST_SKIP() << "tshark is not installed";
    char d[] = "/tmp/dissector-XXXXXX";
    ASSERT_TRUE(mkdtemp(d));
    dir = d;
  }
  void TearDown() override {
    if (!dir.empty()) std::filesystem::remove_all(dir);
  }
  std::string dir;
};

TEST_F(WiresharkDissectorTest, MirroredDropFramesDecodeDownToTheDroppedFlow) {
  std::string const capture = dir + "/drops.pcap";
  auto const gen = Calyx::Test::programRun("mod-gen", {"--out", capture, "--flows", "12", "--vlan-tags",
                                                       "mixed", "--family", "mixed", "--seed", "11"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  auto const rows = tshark(capture, {"mod.size", "mod.timestamp", "mod.ethertype", "ip.src", "ipv6.src",
                                     "tcp.srcport", "udp.srcport", "vlan.id"});
  auto const records = Calyx::Test::pcapRecords(capture);
  ASSERT_EQ(rows.size(), records.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    auto const d = Calyx::Test::readMirrored(records[i].bytes);
    auto const& r = rows[i];
    EXPECT_EQ(r[0], std::to_string(d.packetSize)) << i;
    EXPECT_EQ(r[1], std::to_string(d.timestamp)) << i;
    char type[8];
    std::snprintf(type, sizeof type, "0x%04x", unsigned(records[i].bytes[24] << 8 | records[i].bytes[25]));
    EXPECT_EQ(r[2], type) << i;
    std::ostringstream src;
    src << d.flow.srcIp;
    EXPECT_EQ(d.flow.srcIp.isV6() ? r[4] : r[3], src.str()) << i;
    EXPECT_EQ(d.flow.ipProto == 6 ? r[5] : r[6], std::to_string(d.flow.srcPort)) << i;
    if (!d.flow.vlanTags.empty()) {
      EXPECT_EQ(r[7], std::to_string(d.flow.vlanTags[0] & 0x0fff)) << i;
    }
  }
}

// Ethernet / IPv4 / UDP to port 6343 around a report packet: the type byte, then the report as stored.
std::vector<uint8_t> reportFrame(uint8_t type, MirrorOnDrop::Report::Report const& report) {
  std::vector<uint8_t> payload{type};
  payload.insert(payload.end(), report.bytes(), report.bytes() + 25 + report.dataSize());
  std::vector<uint8_t> f = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 0x08, 0x00};
  std::vector<uint8_t> ip(20, 0);
  ip[0] = 0x45;
  uint16_t const total = uint16_t(20 + 8 + payload.size());
  ip[2] = uint8_t(total >> 8), ip[3] = uint8_t(total), ip[8] = 64, ip[9] = 17;
  ip[12] = 127, ip[15] = 1, ip[16] = 127, ip[19] = 1;
  ip4ChecksumFill(ip.data());
  uint16_t const udpLength = uint16_t(8 + payload.size());
  std::vector<uint8_t> udp = {0x9c, 0x40, 0x18, 0xc7, uint8_t(udpLength >> 8), uint8_t(udpLength), 0, 0};
  f.insert(f.end(), ip.begin(), ip.end());
  f.insert(f.end(), udp.begin(), udp.end());
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

TEST_F(WiresharkDissectorTest, ReportDatagramsDecodeEveryField) {
  using MirrorOnDrop::Report::Report;
  std::string const capture = dir + "/reports.pcap";
  PcapFileWriter writer;
  ASSERT_TRUE(writer.open(capture)) << writer.error();
  // Samples of 0, 60 and 80 bytes: the first bytes of a dropped Ethernet/IPv4 frame from 10.1.2.3.
  std::vector<uint8_t> sample = {0, 0, 0x5e, 0, 0x53, 1, 0, 0, 0x5e, 0, 0x53, 2, 0x08, 0x00, 0x45, 0, 0, 60};
  sample.resize(80, 0);
  sample[14 + 9] = 6, sample[14 + 12] = 10, sample[14 + 13] = 1, sample[14 + 14] = 2, sample[14 + 15] = 3;
  uint8_t const sizes[] = {0, 60, 80};
  for (size_t i = 0; i < 3; ++i) {
    Report r(MirrorOnDrop::Drop::Timestamp(1000 + i), MirrorOnDrop::Drop::Reason(1, 2, 3, 0xff), 0);
    r.payloadIs(sample.data(), sizes[i]);
    ASSERT_TRUE(writer.write(reportFrame(uint8_t(i % 2), r), 1700000000.0 + double(i)));
  }
  ASSERT_TRUE(writer.close());
  auto const rows =
      tshark(capture, {"modreport.type", "modreport.timestamp", "modreport.datasize", "modreport.reason"});
  ASSERT_EQ(rows.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(rows[i][0], std::to_string(i % 2)) << i;  // START, STOP, START
    EXPECT_EQ(rows[i][1], std::to_string(1000 + i)) << i;
    EXPECT_EQ(rows[i][2], std::to_string(sizes[i])) << i;
    EXPECT_EQ(rows[i][3], "000000010000000200000003000000ff") << i;
  }
  // The sample is decoded as an Ethernet frame: the last IPv4 source of a report with a sample is the dropped
  // packet's, behind the datagram's own.
  auto const sources = tshark(capture, {"ip.src"}, "a");
  EXPECT_EQ(sources[0][0], "127.0.0.1");
  EXPECT_EQ(sources[1][0], "127.0.0.1,10.1.2.3");
  EXPECT_EQ(sources[2][0], "127.0.0.1,10.1.2.3");
}

}  // namespace
