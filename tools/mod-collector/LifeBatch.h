#pragma once
// LifeBatch: a batch of received reports grouped by the drop life they belong to, before it is written. START
// and STOP of one life, and any report seen twice, may sit in the same batch; each engine writes a life once
// per batch from this grouping. Lives are in (source, drop timestamp, digest) order, the same in every
// collector, so two collectors writing into one database take the rows' locks in the same order.

#include <cstdint>
#include <optional>
#include <vector>

#include "tools/mod-collector/ReportRow.h"

namespace ModCollector {

struct LifeInBatch {
  ReportRow const* first = nullptr;    // the life's report (every row of the life carries the same)
  int64_t seenUs = 0;                  // the earliest arrival in the batch
  std::optional<int64_t> startUs;      // the earliest START arrival in the batch
  std::optional<int64_t> stopUs;       // the earliest STOP arrival
  std::vector<ReportRow const*> rows;  // every report of the life in the batch, in arrival order
};

std::vector<LifeInBatch> livesOf(std::vector<ReportRow> const& batch);

// The number of stored reports of a life that has these arrivals (a START, a STOP, or both).
inline int reportsOf(std::optional<int64_t> const& startUs, std::optional<int64_t> const& stopUs) {
  return (startUs ? 1 : 0) + (stopUs ? 1 : 0);
}

}  // namespace ModCollector
