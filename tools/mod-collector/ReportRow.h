#pragma once
// ReportRow: one received report as the store keeps it: who sent it and where it arrived, when, and the
// report itself (decoded, with its raw sample).
//
// START and STOP of one drop life carry the same report bytes (all but the type byte), so those bytes name
// the life: digest is their 64-bit XXH3 hash, the same in every collector of a fleet. A life is known by
// (source, drop timestamp, digest): a report seen twice, by two collectors or as a repeated datagram, lands
// on the same life and the same (life, type) report, which the database keeps once.

#include <array>
#include <cstdint>
#include <string>

#include "tools/mod-collector/ReportDecoder.h"

namespace ModCollector {

struct ReportRow {
  std::string source;  // the exporter's address, the datagram's source IP in its usual text form
  uint16_t sourcePort = 0;
  std::string collector;  // the address it reached: the listening socket's ADDR:PORT
  int64_t arrivedUs = 0;  // wall clock, microseconds since the epoch
  int64_t digest = 0;     // XXH3-64 of the datagram's bytes after the type, as a signed number for SQL
  Report report;
  std::array<uint8_t, kMaxDataSize> sample{};  // the first report.dataSize bytes are the sample
};

// The row of a well-formed report datagram (data, size): decoded already into report.
ReportRow reportRow(uint8_t const* data, size_t size, Report report, std::string source, uint16_t sourcePort,
                    std::string collector, int64_t arrivedUs);

}  // namespace ModCollector
