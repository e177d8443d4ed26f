#include "tools/mod-collector/QueryAnswer.h"

#include <charconv>
#include <stdexcept>

#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/ReportFormat.h"

namespace ModCollector {
namespace {

using Json = nlohmann::ordered_json;

std::optional<std::string> option(QueryOptions const& o, std::string const& key) {
  auto it = o.find(key);
  return it == o.end() ? std::nullopt : std::optional(it->second);
}

int64_t durationOption(QueryOptions const& o, std::string const& key, std::string const& fallback) {
  std::string const text = option(o, key).value_or(fallback);
  auto d = parseDuration(text);
  if (!d)
    throw std::invalid_argument(key + ": bad duration '" + text + "' (expected e.g. 90s, 15m, 1h, 7d, 2w)");
  return *d;
}

std::optional<int64_t> sinceOption(QueryOptions const& o, int64_t nowUs) {
  if (!option(o, "since") || option(o, "since") == "all") return std::nullopt;
  return nowUs - durationOption(o, "since", "");
}

size_t limitOption(QueryOptions const& o, size_t fallback) {
  auto text = option(o, "limit");
  if (!text) return fallback;
  size_t v = 0;
  auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), v);
  if (ec != std::errc() || end != text->data() + text->size() || v == 0 || v > 100000) {
    throw std::invalid_argument("limit: bad number '" + *text + "' (expected 1 to 100000)");
  }
  return v;
}

void onlyOptions(QueryOptions const& o, std::string const& subject, std::vector<std::string> const& known) {
  for (auto const& [key, value] : o) {
    if (std::find(known.begin(), known.end(), key) == known.end()) {
      throw std::invalid_argument(key + ": not an option of " + subject);
    }
  }
}

Json flowJson(std::optional<SampleFlow> const& f) {
  if (!f) return nullptr;
  return Json{{"ip_proto", f->ipProto},
              {"src_ip", f->srcIp},
              {"dst_ip", f->dstIp},
              {"src_port", f->srcPort},
              {"dst_port", f->dstPort}};
}

Json optTime(std::optional<int64_t> const& us) {
  return us ? Json(isoTime(*us)) : Json(nullptr);
}

std::string protocolText(std::optional<int> const& p) {
  return p ? protoName(static_cast<uint8_t>(*p)) : "(no IP header)";
}

std::string flowLabel(std::optional<SampleFlow> const& f) {
  return f ? flowText(*f) : "(no flow in sample)";
}

// Columns padded to their widest cell, two blanks apart.
std::string table(std::vector<std::vector<std::string>> const& rows) {
  std::vector<size_t> width;
  for (auto const& r : rows) {
    width.resize(std::max(width.size(), r.size()));
    for (size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
  }
  std::string out;
  for (auto const& r : rows) {
    std::string line;
    for (size_t i = 0; i < r.size(); ++i) {
      line += r[i];
      if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
    }
    out += line + "\n";
  }
  return out;
}

struct JsonAnswer {
  Storage& storage;
  Json operator()(TopQuery const& q) const {
    Json rows = Json::array();
    for (TopRow const& r : runTop(storage, q)) {
      Json row;
      switch (q.kind) {
        case TopKind::Flows:
          row["flow"] = flowJson(r.flow);
          break;
        case TopKind::Reasons:
          row["reason"] = reasonText(r.reason);
          break;
        case TopKind::Sources:
          row["source"] = r.source;
          break;
        case TopKind::Protocols:
          row["ip_proto"] = r.ipProto ? Json(*r.ipProto) : Json(nullptr);
          row["protocol"] = protocolText(r.ipProto);
          break;
      }
      row["lives"] = r.lives;
      row["reports"] = r.reports;
      rows.push_back(std::move(row));
    }
    return Json{{"top", topKindName(q.kind)},
                {"since", optTime(q.sinceUs)},
                {"by", q.by == TopOrder::Lives ? "lives" : "reports"},
                {"rows", std::move(rows)}};
  }
  Json operator()(LivesQuery const& q) const {
    Json rows = Json::array();
    for (LifeRow const& l : runLives(storage, q)) {
      Json row{{"source", l.source},         {"flow", flowJson(l.flow)},  {"reason", reasonText(l.reason)},
               {"drop_timestamp", l.dropTs}, {"seen", isoTime(l.seenUs)}, {"start", optTime(l.startUs)},
               {"stop", optTime(l.stopUs)},  {"open", !l.stopUs},         {"data_size", l.dataSize}};
      if (l.dstMac) {
        row["dst_mac"] = *l.dstMac;
        row["src_mac"] = l.srcMac.value_or("");
        row["ethertype"] = l.etherType.value_or(0);
        Json vlans = Json::array();
        std::string const v = l.vlans.value_or("");
        for (size_t i = 0; i < v.size();) {
          size_t const comma = std::min(v.find(',', i), v.size());
          vlans.push_back(std::stoi(v.substr(i, comma - i)));
          i = comma + 1;
        }
        row["vlans"] = std::move(vlans);
      }
      rows.push_back(std::move(row));
    }
    return Json{{"lives", std::move(rows)}};
  }
  Json operator()(TimelineQuery const& q) const {
    Json points = Json::array();
    for (TimelinePoint const& p : runTimeline(storage, q))
      points.push_back({{"at", isoTime(p.atUs)}, {"lives", p.lives}});
    return Json{
        {"since", isoTime(q.sinceUs)}, {"step", durationText(q.stepUs)}, {"points", std::move(points)}};
  }
};

struct TableAnswer {
  Storage& storage;
  std::string operator()(TopQuery const& q) const {
    std::vector<std::vector<std::string>> rows;
    char const* const heads[] = {"flow", "reason", "source", "protocol"};
    rows.push_back({"lives", "reports", heads[static_cast<int>(q.kind)]});
    for (TopRow const& r : runTop(storage, q)) {
      std::string const key = q.kind == TopKind::Flows     ? flowLabel(r.flow)
                              : q.kind == TopKind::Reasons ? reasonText(r.reason)
                              : q.kind == TopKind::Sources ? r.source
                                                           : protocolText(r.ipProto);
      rows.push_back({std::to_string(r.lives), std::to_string(r.reports), key});
    }
    return table(rows) +
           (rows.size() == 1 ? "(no lives" + std::string(q.sinceUs ? " in the window" : "") + ")\n" : "");
  }
  std::string operator()(LivesQuery const& q) const {
    std::vector<std::vector<std::string>> rows;
    rows.push_back({"seen", "source", "flow", "reason", "drop_timestamp", "start", "stop"});
    for (LifeRow const& l : runLives(storage, q)) {
      rows.push_back({isoTime(l.seenUs), l.source, flowLabel(l.flow), reasonText(l.reason),
                      std::to_string(l.dropTs), l.startUs ? isoTime(*l.startUs) : "-",
                      l.stopUs ? isoTime(*l.stopUs) : "open"});
    }
    return table(rows) + (rows.size() == 1 ? "(no lives)\n" : "");
  }
  std::string operator()(TimelineQuery const& q) const {
    std::vector<std::vector<std::string>> rows;
    rows.push_back({"step (" + durationText(q.stepUs) + ")", "new lives"});
    for (TimelinePoint const& p : runTimeline(storage, q))
      rows.push_back({isoTime(p.atUs), std::to_string(p.lives)});
    return table(rows);
  }
};

}  // namespace

Query parseQuery(std::string const& subject, QueryOptions const& o, int64_t nowUs) {
  if (subject.rfind("top ", 0) == 0) {
    onlyOptions(o, "top", {"since", "limit", "by"});
    std::string const what = subject.substr(4);
    TopQuery q;
    if (what == "flows") {
      q.kind = TopKind::Flows;
    } else if (what == "reasons") {
      q.kind = TopKind::Reasons;
    } else if (what == "sources") {
      q.kind = TopKind::Sources;
    } else if (what == "protocols") {
      q.kind = TopKind::Protocols;
    } else {
      throw std::invalid_argument("top: no such list '" + what +
                                  "' (expected flows, reasons, sources or protocols)");
    }
    q.sinceUs = sinceOption(o, nowUs);
    q.limit = limitOption(o, 10);
    std::string const by = option(o, "by").value_or("lives");
    if (by != "lives" && by != "reports")
      throw std::invalid_argument("by: expected lives or reports, not '" + by + "'");
    q.by = by == "lives" ? TopOrder::Lives : TopOrder::Reports;
    return q;
  }
  if (subject == "lives") {
    onlyOptions(o, "lives", {"open", "source", "flow", "since", "limit"});
    LivesQuery q;
    std::string const open = option(o, "open").value_or("0");
    if (open != "0" && open != "1" && open != "true" && open != "false") {
      throw std::invalid_argument("open: expected 1 or 0, not '" + open + "'");
    }
    q.openOnly = open == "1" || open == "true";
    if (auto source = option(o, "source")) {
      std::string error;
      auto f = FlowFilter::parse("ip=" + *source, error);
      if (!f) throw std::invalid_argument("source: '" + *source + "' is not an IPv4 or IPv6 address");
      q.source = std::get<std::string>(f->terms[0].value);
    }
    if (auto flow = option(o, "flow")) {
      std::string error;
      q.flow = FlowFilter::parse(*flow, error);
      if (!q.flow) throw std::invalid_argument("flow: " + error);
    }
    q.sinceUs = sinceOption(o, nowUs);
    q.limit = limitOption(o, 50);
    return q;
  }
  if (subject == "timeline") {
    onlyOptions(o, "timeline", {"since", "step"});
    TimelineQuery q;
    q.sinceUs = nowUs - durationOption(o, "since", "1h");
    q.untilUs = nowUs;
    q.stepUs = durationOption(o, "step", "1m");
    if ((q.untilUs - q.sinceUs / q.stepUs * q.stepUs) / q.stepUs >= kMaxTimelineSteps) {
      throw std::invalid_argument("step: the window holds more than " + std::to_string(kMaxTimelineSteps) +
                                  " steps of " + durationText(q.stepUs) + ": take a larger step");
    }
    return q;
  }
  throw std::invalid_argument("no such query '" + subject + "' (expected top, lives or timeline)");
}

nlohmann::ordered_json answerJson(Storage& storage, Query const& query) {
  return std::visit(JsonAnswer{storage}, query);
}

std::string answerTable(Storage& storage, Query const& query) {
  return std::visit(TableAnswer{storage}, query);
}

SqlQuery querySql(Query const& query) {
  return std::visit(
      [](auto const& q) -> SqlQuery {
        using T = std::decay_t<decltype(q)>;
        if constexpr (std::is_same_v<T, TopQuery>) return topSql(q);
        if constexpr (std::is_same_v<T, LivesQuery>) return livesSql(q);
        if constexpr (std::is_same_v<T, TimelineQuery>) return timelineSql(q);
      },
      query);
}

}  // namespace ModCollector
