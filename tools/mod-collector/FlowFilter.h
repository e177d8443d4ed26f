#pragma once
// FlowFilter: which flows `query lives --flow` (and the page's API) keeps. Terms separated by blanks or
// commas, all of which must hold:
//   tcp, udp, icmp, icmpv6, proto=N    the IP protocol
//   ADDR, ip=ADDR                      either address (IPv4 or IPv6)
//   src=ADDR, dst=ADDR                 the source or destination address
//   N, port=N                          either port
//   sport=N, dport=N                   the source or destination port
// "10.0.0.1 tcp dport=443" keeps TCP flows to or from 10.0.0.1 whose destination port is 443.

#include <optional>
#include <string>
#include <vector>

#include "tools/mod-collector/Storage.h"

namespace ModCollector {

struct FlowFilter {
  struct Term {
    std::vector<char const*> columns;  // one of them must equal value
    SqlValue value;
  };
  std::vector<Term> terms;

  // The filter, or nothing with error naming the term that is not understood.
  static std::optional<FlowFilter> parse(std::string const& text, std::string& error);
  // A condition on the flows table under alias f, its parameters appended to params.
  std::string sql(std::vector<SqlValue>& params) const;
};

}  // namespace ModCollector
