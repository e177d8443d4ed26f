#pragma once
// The records of a classic pcap file (little-endian, Ethernet), read without libpcap so that tests check the
// writers against an independent reader.

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace Calyx::Test {

struct PcapRecord {
  uint32_t len = 0;  // the frame's length on the wire
  std::vector<uint8_t> bytes;
};

inline std::vector<PcapRecord> pcapRecords(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> const all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto u32 = [&](size_t at) {
    return uint32_t(all[at] | all[at + 1] << 8 | all[at + 2] << 16 | uint32_t(all[at + 3]) << 24);
  };
  std::vector<PcapRecord> records;
  if (all.size() < 24 || u32(0) != 0xa1b2c3d4 || u32(20) != 1) return records;
  for (size_t at = 24; at + 16 <= all.size();) {
    uint32_t const caplen = u32(at + 8);
    if (at + 16 + caplen > all.size()) break;
    PcapRecord r;
    r.len = u32(at + 12);
    r.bytes.assign(all.begin() + long(at + 16), all.begin() + long(at + 16 + caplen));
    records.push_back(std::move(r));
    at += 16 + caplen;
  }
  return records;
}

}  // namespace Calyx::Test
