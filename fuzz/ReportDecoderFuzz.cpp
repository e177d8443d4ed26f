// The collector's report decoder over arbitrary datagrams, as they arrive from anyone who can reach its port.
// Whatever the bytes, the decoder answers without a crash: a report, or the reason it is none. A report it
// accepts keeps its own rules: the datagram is exactly its header and data size long, the data size at most
// 80, the type START or STOP, a flow only inside an Ethernet header; its printed forms (a line, a JSON object
// that parses back) and its stored row are made without a crash, and the row carries the very sample bytes.
// A datagram that differs from a report in its type byte alone names the same drop life.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/mod-collector/ReportDecoder.h"
#include "tools/mod-collector/ReportFormat.h"
#include "tools/mod-collector/ReportRow.h"

using namespace ModCollector;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string why;
  auto const report = decodeReport(data, size, why);
  if (!report) {
    if (why.empty()) std::abort();  // a refusal says why
    return 0;
  }
  if (size != kReportHeaderSize + report->dataSize || report->dataSize > kMaxDataSize || report->type > 1)
    std::abort();
  if (report->flow && !report->ethernet) std::abort();
  (void)reportLine(*report, "192.0.2.1:5000");
  if (nlohmann::json::parse(reportJson(*report, "[2001:db8::1]:5000"), nullptr, false).is_discarded())
    std::abort();
  ReportRow const row = reportRow(data, size, *report, "192.0.2.1", 5000, "127.0.0.1:6343", 0);
  if (std::memcmp(row.sample.data(), data + kReportHeaderSize, report->dataSize) != 0) std::abort();

  // The other half of the same life: START and STOP differ in the type byte only.
  std::vector<uint8_t> other(data, data + size);
  other[0] ^= 1;
  auto const pair = decodeReport(other.data(), other.size(), why);
  if (!pair || pair->type == report->type) std::abort();
  ReportRow const pairRow =
      reportRow(other.data(), other.size(), *pair, "192.0.2.1", 5000, "127.0.0.1:6343", 0);
  if (pairRow.digest != row.digest) std::abort();
  return 0;
}
