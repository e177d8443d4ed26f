#pragma once
// TableViews: the feature's shared tables as operators see them, read straight from shared memory (so they
// work while the agent is down or hung, and from any thread or process that may read the state directory):
// one JSON document per view, with stable keys, and a readable table made from it. modctl shows them; the
// metrics (modctl metrics, and the agent's scrape endpoint) count from them.
//
//   flows:       {"flows": [{"ip_proto", "src_ip", "dst_ip", "src_port", "dst_port", "type", "timestamp",
//                            "data_size", "interfaces": [...]}], "count"}  (in flow key order; the timestamp
//                            in nanoseconds as the chip gives it; FlowQuery filters, sorts and adds
//                            "matching")
//   interfaces:  {"interfaces": [{"interface", "flows"}], "count"}
//   collectors:  {"collectors": [{"exporter", "collector", "bytes", "start", "stop"}], "count"} (modctl adds
//                "send_errors" from the running agent: null, shown "-", when it cannot be asked)
//   exact-match: {"entries": [{"ip_proto", "src_ip", "dst_ip", "src_port", "dst_port", "interface",
//                              "installed"}], "count"}

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace Ops {

using Json = nlohmann::ordered_json;

// nullopt with error set (naming the table and the directory) when a table cannot be read.
std::optional<Json> flowsRead(std::string const& stateDir, std::string& error);
std::optional<Json> interfacesRead(std::string const& stateDir, std::string& error);
std::optional<Json> collectorsRead(std::string const& stateDir, std::string& error);
std::optional<Json> exactMatchRead(std::string const& stateDir, std::string& error);
// How many flows the flow table holds, without reading them.
std::optional<size_t> flowCount(std::string const& stateDir, std::string& error);

// What the metrics count of the shared tables: read from shared memory by modctl (tableCountsRead), taken
// from its own tables by the agent.
struct TableCounts {
  size_t flows = 0;
  Json interfaces = Json::array();  // [{"interface", "flows"}], as TableViews gives them
  Json collectors = Json::array();  // [{"exporter", "collector", "bytes", "start", "stop"}]
  size_t exactMatch = 0;            // exact-match entries requested
  size_t exactMatchInstalled = 0;   // of which installed
};

// The counts read from the state directory; nullopt with error set when a table cannot be read.
std::optional<TableCounts> tableCountsRead(std::string const& stateDir, std::string& error);

// The readable form of one of the documents above: a table with a header line, "(no ...)" when it is empty,
// and a last line saying how many were left out by a filter or a limit.
std::string tableText(Json const& doc);

}  // namespace Ops
