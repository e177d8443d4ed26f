#pragma once
// CollectorSummary: what the collector saw, printed on stderr when it stops: reports by type, rejected
// datagrams by the kind of their fault, and (only when asked for, since the list grows with every flow)
// reports by flow: START and STOP counts per five-tuple, reports whose sample holds no flow counted apart. It
// also keeps reports by type per source for the metrics.

#include <cstdint>
#include <map>
#include <string>

#include "tools/mod-collector/CollectorOptions.h"
#include "tools/mod-collector/ReportDecoder.h"

namespace ModCollector {

class CollectorSummary {
 public:
  struct TypeCounts {
    uint64_t start = 0;
    uint64_t stop = 0;
  };

  explicit CollectorSummary(bool byFlow = true) : keepFlows_(byFlow) {}
  void reportAdd(Report const& r, std::string const& source);
  // why is the decoder's reason; its part before the first colon is the kind counted.
  void rejectedAdd(std::string const& why);

  uint64_t reports() const { return starts_ + stops_; }
  uint64_t rejected() const { return rejected_; }
  std::map<std::string, TypeCounts> const& bySource() const { return bySource_; }
  std::map<std::string, uint64_t> const& rejectedByKind() const { return rejectedByKind_; }
  // Lines ending in "\n"; nothing for SummaryMode::None.
  std::string text(SummaryMode mode) const;

 private:
  bool keepFlows_;
  uint64_t starts_ = 0;
  uint64_t stops_ = 0;
  uint64_t rejected_ = 0;
  TypeCounts noFlow_;
  std::map<SampleFlow, TypeCounts> byFlow_;
  std::map<std::string, TypeCounts> bySource_;
  std::map<std::string, uint64_t> rejectedByKind_;
};

}  // namespace ModCollector
