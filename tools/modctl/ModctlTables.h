#pragma once
// What modctl shows of the feature's shared tables, read straight from shared memory (so it works while the
// agent is down or hung): one JSON document per view, with stable keys, and a readable table made from it.
//
//   flows:       {"flows": [{"ip_proto", "src_ip", "dst_ip", "src_port", "dst_port", "type", "timestamp",
//                            "data_size", "interfaces": [...]}], "count"}  (in flow key order; the timestamp
//                            in nanoseconds as the chip gives it; FlowQuery filters, sorts and adds
//                            "matching")
//   interfaces:  {"interfaces": [{"interface", "flows"}], "count"}
//   collectors:  {"collectors": [{"exporter", "collector", "bytes", "start", "stop"}], "count"}
//   exact-match: {"entries": [{"ip_proto", "src_ip", "dst_ip", "src_port", "dst_port", "interface",
//                              "installed"}], "count"}

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace Modctl {

using Json = nlohmann::ordered_json;

// nullopt with error set (naming the table and the directory) when a table cannot be read.
std::optional<Json> flowsRead(std::string const& stateDir, std::string& error);
std::optional<Json> interfacesRead(std::string const& stateDir, std::string& error);
std::optional<Json> collectorsRead(std::string const& stateDir, std::string& error);
std::optional<Json> exactMatchRead(std::string const& stateDir, std::string& error);

// The readable form of one of the documents above: a table with a header line, "(no ...)" when it is empty,
// and a last line saying how many were left out by a filter or a limit.
std::string tableText(Json const& doc);

}  // namespace Modctl
