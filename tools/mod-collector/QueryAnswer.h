#pragma once
// A question put by `mod-collector query` or by the page's API, and its answer as JSON or as a table. Both
// take the same subjects and options, so the API serves exactly what the command prints with --json:
//   top flows|reasons|sources|protocols   since=DURATION limit=N by=lives|reports
//   lives                                 open=1 source=ADDR flow=FILTER since=DURATION limit=N
//   timeline                              since=DURATION (default 1h) step=DURATION (default 1m)
// DURATION as parseDuration takes it ("15m", "1h", "7d"); since counts back from now.

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>

#include "tools/mod-collector/Queries.h"

namespace ModCollector {

using Query = std::variant<TopQuery, LivesQuery, TimelineQuery>;
using QueryOptions = std::map<std::string, std::string>;

// subject: "top flows" (the kind after a blank), "lives" or "timeline". Throws std::invalid_argument naming
// the subject or option that is wrong.
Query parseQuery(std::string const& subject, QueryOptions const& options, int64_t nowUs);

nlohmann::ordered_json answerJson(Storage& storage, Query const& query);
std::string answerTable(Storage& storage, Query const& query);
SqlQuery querySql(Query const& query);

}  // namespace ModCollector
