#include "ops/TableViews.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "mirror_on_drop/MirrorOnDropCollectorRecords.h"
#include "mirror_on_drop/MirrorOnDropEmtRecords.h"
#include "mirror_on_drop/MirrorOnDropNames.h"
#include "mirror_on_drop/MirrorOnDropReportRecords.h"
#include "platform/shm/SharedTableReader.h"

namespace Ops {

using namespace MirrorOnDrop;

namespace {

template <class K, class V>
std::optional<std::vector<V>> snapshot(std::string const& stateDir, std::string const& table,
                                       std::string& error) {
  auto reader = Calyx::SharedTableReader<K, V>::forTable(table, stateDir);
  std::vector<V> rows = reader.snapshot();
  if (reader.error() == Calyx::SharedTableReadError::none) return rows;
  error = "cannot read the table " + table + " in " + stateDir + ": " + reader.errorText();
  return std::nullopt;
}

std::string text(Calyx::IpGenAddr const& a) {
  std::ostringstream os;
  os << a;
  return os.str();
}

void flowFields(Json& j, FlowKey const& f) {
  j["ip_proto"] = f.ipProto();
  j["src_ip"] = text(f.srcIp());
  j["dst_ip"] = text(f.dstIp());
  j["src_port"] = f.srcPort();
  j["dst_port"] = f.dstPort();
}

Json listed(char const* key, Json rows) {
  Json doc;
  size_t const n = rows.size();
  doc[key] = std::move(rows);
  doc["count"] = n;
  return doc;
}

}  // namespace

std::optional<Json> flowsRead(std::string const& stateDir, std::string& error) {
  std::string const name = TableName::kReportStatus;
  auto flows = snapshot<Report::Key, Report::EntryStatus>(stateDir, name + ".entry", error);
  if (!flows) return std::nullopt;
  auto requests = snapshot<Emt::Key, Emt::EntryConfig>(stateDir, TableName::kEmtConfig, error);
  std::map<FlowKey, std::vector<std::string>> interfaces;
  for (auto const& r : requests.value_or(std::vector<Emt::EntryConfig>{}))
    interfaces[r.key().flowKey()].push_back(std::string(r.key().intfId().name()));
  std::sort(flows->begin(), flows->end(), [](auto const& a, auto const& b) { return a.key() < b.key(); });
  Json rows = Json::array();
  for (auto const& e : *flows) {
    Json j;
    flowFields(j, e.key());
    j["type"] = e.type() == Report::ReportType::STOP ? "STOP" : "START";
    j["timestamp"] = e.report().timestamp().value();
    j["data_size"] = e.report().dataSize();
    j["interfaces"] = interfaces[e.key()];
    rows.push_back(std::move(j));
  }
  return listed("flows", std::move(rows));
}

std::optional<size_t> flowCount(std::string const& stateDir, std::string& error) {
  std::string const name = std::string(TableName::kReportStatus) + ".entry";
  auto reader = Calyx::SharedTableReader<Report::Key, Report::EntryStatus>::forTable(name, stateDir);
  size_t const n = reader.count();
  if (reader.error() == Calyx::SharedTableReadError::none) return n;
  error = "cannot read the table " + name + " in " + stateDir + ": " + reader.errorText();
  return std::nullopt;
}

std::optional<Json> interfacesRead(std::string const& stateDir, std::string& error) {
  std::string const name = std::string(TableName::kReportStatus) + ".entryIntf";
  auto rows = snapshot<Report::Interface::Key, Report::Interface::Entry>(stateDir, name, error);
  if (!rows) return std::nullopt;
  std::sort(rows->begin(), rows->end(), [](auto const& a, auto const& b) { return a.key() < b.key(); });
  Json out = Json::array();
  for (auto const& e : *rows)
    out.push_back({{"interface", std::string(e.key().intfId().name())}, {"flows", e.countReport()}});
  return listed("interfaces", std::move(out));
}

std::optional<Json> collectorsRead(std::string const& stateDir, std::string& error) {
  auto rows = snapshot<Collector::Key, Collector::EntryStatus>(stateDir, TableName::kCollectorStatus, error);
  if (!rows) return std::nullopt;
  std::sort(rows->begin(), rows->end(), [](auto const& a, auto const& b) { return a.key() < b.key(); });
  Json out = Json::array();
  for (auto const& e : *rows) {
    out.push_back({{"exporter", e.key().exporter()},
                   {"collector", e.key().collector()},
                   {"bytes", e.bytes()},
                   {"start", e.start()},
                   {"stop", e.stop()}});
  }
  return listed("collectors", std::move(out));
}

std::optional<Json> exactMatchRead(std::string const& stateDir, std::string& error) {
  auto wanted = snapshot<Emt::Key, Emt::EntryConfig>(stateDir, TableName::kEmtConfig, error);
  if (!wanted) return std::nullopt;
  auto status = snapshot<Emt::Key, Emt::EntryStatus>(stateDir, TableName::kEmtStatus, error);
  std::map<Emt::Key, bool> installed;
  for (auto const& s : status.value_or(std::vector<Emt::EntryStatus>{})) installed[s.key()] = s.isInstalled();
  std::sort(wanted->begin(), wanted->end(), [](auto const& a, auto const& b) { return a.key() < b.key(); });
  Json out = Json::array();
  for (auto const& e : *wanted) {
    Json j;
    flowFields(j, e.key().flowKey());
    j["interface"] = std::string(e.key().intfId().name());
    j["installed"] = installed[e.key()];
    out.push_back(std::move(j));
  }
  return listed("entries", std::move(out));
}

std::optional<TableCounts> tableCountsRead(std::string const& stateDir, std::string& error) {
  auto const f = flowCount(stateDir, error);
  auto const i = f ? interfacesRead(stateDir, error) : std::nullopt;
  auto const c = i ? collectorsRead(stateDir, error) : std::nullopt;
  auto const e = c ? exactMatchRead(stateDir, error) : std::nullopt;
  if (!e) return std::nullopt;
  TableCounts t;
  t.flows = *f;
  t.interfaces = (*i)["interfaces"];
  t.collectors = (*c)["collectors"];
  t.exactMatch = (*e)["count"].get<size_t>();
  for (auto const& entry : (*e)["entries"]) t.exactMatchInstalled += entry["installed"].get<bool>();
  return t;
}

std::string tableText(Json const& doc) {
  // The first array in the document is the table; its first row's keys are the columns.
  for (auto const& [key, rows] : doc.items()) {
    if (!rows.is_array()) continue;
    size_t const count = doc.value("count", rows.size());
    size_t const matching = doc.value("matching", count);
    std::string const inAll = matching < count ? "; " + std::to_string(count) + " in all" : "";
    if (rows.empty()) return "(no " + key + (matching < count ? " match" : "") + inAll + ")\n";
    std::vector<std::string> columns;
    for (auto const& [c, _] : rows.front().items()) columns.push_back(c);
    std::vector<std::vector<std::string>> cells;
    cells.push_back(columns);
    for (auto const& row : rows) {
      std::vector<std::string> line;
      for (auto const& c : columns) {
        Json const& v = row[c];
        if (v.is_string()) {
          line.push_back(v.get<std::string>());
        } else if (v.is_null()) {
          line.push_back("-");  // not known here
        } else if (v.is_array()) {
          std::string joined;
          for (auto const& x : v)
            joined += (joined.empty() ? "" : ",") + (x.is_string() ? x.get<std::string>() : x.dump());
          line.push_back(joined);
        } else {
          line.push_back(v.dump());
        }
      }
      cells.push_back(std::move(line));
    }
    std::vector<size_t> width(columns.size(), 0);
    for (auto const& line : cells)
      for (size_t i = 0; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
    std::ostringstream os;
    for (auto const& line : cells) {
      for (size_t i = 0; i < line.size(); ++i) {
        os << line[i];
        if (i + 1 < line.size()) os << std::string(width[i] - line[i].size() + 2, ' ');
      }
      os << "\n";
    }
    if (rows.size() < matching) {
      os << "(" << rows.size() << " of " << matching << (matching < count ? " matching" : "") << " shown"
         << inAll << ")\n";
    } else if (matching < count) {
      os << "(" << matching << " matching" << inAll << ")\n";
    }
    return os.str();
  }
  return doc.dump(2) + "\n";
}

}  // namespace Ops
