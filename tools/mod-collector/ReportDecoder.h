#pragma once
// decodeReport: turns one report datagram into its fields, or says why it is not a report.
//
// The payload, every number big-endian: [0] type (0 START, 1 STOP); [1..8] timestamp; [9..24] four 32-bit
// reason words; [25] data size N (at most 80); [26..26+N) the sample, the dropped frame from its Ethernet
// header on. A report is exactly 26 + N bytes long. The sample is cut short by the sender, so every layer
// inside it is optional: what the sample holds is decoded, what it lacks is left out (no Ethernet header
// below 14 bytes, no ports when the transport header is cut).

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ModCollector {

inline constexpr size_t kReportHeaderSize = 26;
inline constexpr size_t kMaxDataSize = 80;

// The five-tuple of the dropped packet, addresses in their usual text form.
struct SampleFlow {
  uint8_t ipProto = 0;
  std::string srcIp;
  std::string dstIp;
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;

  auto operator<=>(SampleFlow const&) const = default;
};

// The Ethernet layer of the sample: present when the sample holds at least the 14-byte header.
struct SampleEthernet {
  std::array<uint8_t, 6> dstMac{};
  std::array<uint8_t, 6> srcMac{};
  uint16_t etherType = 0;       // bytes 12-13 of the sample, the outer EtherType
  std::vector<uint16_t> vlans;  // 802.1Q/802.1ad tag ids, outer first
};

struct Report {
  uint8_t type = 0;  // 0 START, 1 STOP
  uint64_t timestamp = 0;
  std::array<uint32_t, 4> reason{};  // host order, word 0 first
  uint8_t dataSize = 0;
  std::optional<SampleEthernet> ethernet;
  std::optional<SampleFlow> flow;
};

// The decoded report, or nothing with why set to the reason: its kind, a colon, the details
// ("wrong length: 30 bytes, data size 10 needs 36").
std::optional<Report> decodeReport(uint8_t const* data, size_t size, std::string& why);

char const* reportTypeName(uint8_t type);

}  // namespace ModCollector
