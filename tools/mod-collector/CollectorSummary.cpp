#include "tools/mod-collector/CollectorSummary.h"

#include "tools/mod-collector/ReportFormat.h"

namespace ModCollector {
namespace {

std::string countsText(uint64_t start, uint64_t stop) {
  return "START " + std::to_string(start) + ", STOP " + std::to_string(stop);
}

}  // namespace

void CollectorSummary::reportAdd(Report const& r, std::string const& source) {
  bool const stop = r.type == 1;
  (stop ? stops_ : starts_) += 1;
  TypeCounts& s = bySource_[source];
  (stop ? s.stop : s.start) += 1;
  if (!keepFlows_) return;
  TypeCounts& c = r.flow ? byFlow_[*r.flow] : noFlow_;
  (stop ? c.stop : c.start) += 1;
}

void CollectorSummary::rejectedAdd(std::string const& why) {
  ++rejected_;
  ++rejectedByKind_[why.substr(0, why.find(':'))];
}

std::string CollectorSummary::text(SummaryMode mode) const {
  if (mode == SummaryMode::None) return {};
  std::string s = "summary: " + std::to_string(reports()) + " reports (" + countsText(starts_, stops_) +
                  "), " + std::to_string(rejected_) + " rejected\n";
  if (mode == SummaryMode::Flows) {
    if (!byFlow_.empty() || noFlow_.start + noFlow_.stop > 0) s += "by flow:\n";
    for (auto const& [flow, c] : byFlow_)
      s += "  " + flowText(flow) + ": " + countsText(c.start, c.stop) + "\n";
    if (noFlow_.start + noFlow_.stop > 0) {
      s += "  (no flow in sample): " + countsText(noFlow_.start, noFlow_.stop) + "\n";
    }
  }
  if (!rejectedByKind_.empty()) s += "rejected:\n";
  for (auto const& [kind, n] : rejectedByKind_) s += "  " + kind + ": " + std::to_string(n) + "\n";
  return s;
}

}  // namespace ModCollector
