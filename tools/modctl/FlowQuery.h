#pragma once
// FlowQuery: what `modctl show flows` keeps of the flows document and in which order, from its options:
//
//   --filter KEY=VALUE[,KEY=VALUE...]  every term must hold (the option may be given again: more terms).
//                                      Keys are the document's columns (ip_proto, src_ip, dst_ip, src_port,
//                                      dst_port, type, interface) and, as in tcpdump, ip and port for either
//                                      side. Addresses take a prefix (10.0.0.0/8); ip_proto takes tcp or udp.
//   --sort KEY [--reverse]             by a column, addresses and numbers by value (default: the flow key)
//   --limit N                          the first N after filtering and sorting
//   --time iso|ns                      the table's timestamps as UTC dates (the default) or as the chip's
//                                      nanoseconds; JSON keeps "timestamp" in nanoseconds and adds "time"
//                                      (the date) when iso is asked for
//
// A bad key or value is refused when the options are read, naming it, before any table is looked at.

#include <optional>
#include <string>
#include <vector>

#include "tools/modctl/ModctlTables.h"

namespace Modctl {

class FlowQuery {
 public:
  enum class Time { iso, ns };

  // Each returns an error text naming the bad input, or empty.
  std::string filterAdd(std::string const& terms);
  std::string sortIs(std::string const& key);
  void reverseIs(bool reverse) { reverse_ = reverse; }
  void limitIs(size_t limit) { limit_ = limit; }
  void timeIs(Time time) { time_ = time; }

  // The flows document (as flowsRead gives it) filtered, sorted and limited, with its timestamps as the table
  // or JSON shows them; "matching" says how many flows passed the filter.
  Json applied(Json const& flows, bool forJson) const;

  static std::vector<std::string> const& keys();  // for the help text

 private:
  struct Term {
    std::string key;
    std::string value;            // as given, for strings and names
    Json number;                  // ip_proto, ports
    std::vector<uint8_t> prefix;  // addresses: the bytes, then the prefix length in bits at the end
  };
  bool matches(Json const& flow) const;

  std::vector<Term> terms_;
  std::string sortKey_;
  bool reverse_ = false;
  size_t limit_ = 0;
  std::optional<Time> time_;
};

// "2023-11-14T22:13:20.002000000Z" for nanoseconds since the epoch.
std::string isoTime(uint64_t ns);

}  // namespace Modctl
