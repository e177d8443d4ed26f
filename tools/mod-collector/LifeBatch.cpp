#include "tools/mod-collector/LifeBatch.h"

#include <map>
#include <string_view>
#include <tuple>

namespace ModCollector {

std::vector<LifeInBatch> livesOf(std::vector<ReportRow> const& batch) {
  std::map<std::tuple<std::string_view, uint64_t, int64_t>, LifeInBatch> byKey;
  for (ReportRow const& row : batch) {
    LifeInBatch& life = byKey[{row.source, row.report.timestamp, row.digest}];
    if (!life.first) {
      life.first = &row;
      life.seenUs = row.arrivedUs;
    }
    life.seenUs = std::min(life.seenUs, row.arrivedUs);
    std::optional<int64_t>& at = row.report.type == 0 ? life.startUs : life.stopUs;
    if (!at || row.arrivedUs < *at) at = row.arrivedUs;
    life.rows.push_back(&row);
  }
  std::vector<LifeInBatch> lives;
  lives.reserve(byKey.size());
  for (auto& [key, life] : byKey) lives.push_back(std::move(life));
  return lives;
}

}  // namespace ModCollector
