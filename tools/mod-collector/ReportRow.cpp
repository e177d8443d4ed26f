#include "tools/mod-collector/ReportRow.h"

#include <xxhash.h>

#include <algorithm>

namespace ModCollector {

ReportRow reportRow(uint8_t const* data, size_t size, Report report, std::string source, uint16_t sourcePort,
                    std::string collector, int64_t arrivedUs) {
  ReportRow row;
  row.source = std::move(source);
  row.sourcePort = sourcePort;
  row.collector = std::move(collector);
  row.arrivedUs = arrivedUs;
  // XXH3's 64-bit output is fixed across versions and machines, which a fleet of collectors relies on.
  row.digest = static_cast<int64_t>(XXH3_64bits(data + 1, size - 1));
  std::copy(data + kReportHeaderSize, data + kReportHeaderSize + report.dataSize, row.sample.begin());
  row.report = std::move(report);
  return row;
}

}  // namespace ModCollector
