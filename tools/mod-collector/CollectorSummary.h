#pragma once
// CollectorSummary: what the collector saw, printed on stderr when it stops: reports by type, reports by flow
// (START and STOP counts per five-tuple; reports whose sample holds no flow are counted apart), and rejected
// datagrams by the kind of their fault.

#include <cstdint>
#include <map>
#include <string>

#include "tools/mod-collector/ReportDecoder.h"

namespace ModCollector {

class CollectorSummary {
 public:
  void reportAdd(Report const& r);
  // why is the decoder's reason; its part before the first colon is the kind counted.
  void rejectedAdd(std::string const& why);

  uint64_t reports() const { return starts_ + stops_; }
  uint64_t rejected() const { return rejected_; }
  std::string text() const;

 private:
  struct TypeCounts {
    uint64_t start = 0;
    uint64_t stop = 0;
  };
  uint64_t starts_ = 0;
  uint64_t stops_ = 0;
  uint64_t rejected_ = 0;
  TypeCounts noFlow_;
  std::map<SampleFlow, TypeCounts> byFlow_;
  std::map<std::string, uint64_t> rejectedByKind_;
};

}  // namespace ModCollector
