#include "tools/mod-collector/Queries.h"

#include <stdexcept>

namespace ModCollector {
namespace {

int64_t toInt(std::optional<std::string> const& v) {
  return v ? std::stoll(*v) : 0;
}

std::optional<int64_t> toOptInt(std::optional<std::string> const& v) {
  return v ? std::optional<int64_t>(std::stoll(*v)) : std::nullopt;
}

// Columns f.ip_proto .. f.dst_port from index i on; nothing when the flow is NULL.
std::optional<SampleFlow> flowAt(SqlRow const& row, size_t i) {
  if (!row[i]) return std::nullopt;
  SampleFlow f;
  f.ipProto = static_cast<uint8_t>(toInt(row[i]));
  f.srcIp = row[i + 1].value_or("");
  f.dstIp = row[i + 2].value_or("");
  f.srcPort = static_cast<uint16_t>(toInt(row[i + 3]));
  f.dstPort = static_cast<uint16_t>(toInt(row[i + 4]));
  return f;
}

std::array<uint32_t, 4> reasonAt(SqlRow const& row, size_t i) {
  std::array<uint32_t, 4> w{};
  for (size_t k = 0; k < 4; ++k) w[k] = static_cast<uint32_t>(toInt(row[i + k]));
  return w;
}

}  // namespace

char const* topKindName(TopKind k) {
  switch (k) {
    case TopKind::Flows:
      return "flows";
    case TopKind::Reasons:
      return "reasons";
    case TopKind::Sources:
      return "sources";
    case TopKind::Protocols:
      return "protocols";
  }
  return "?";
}

SqlQuery topSql(TopQuery const& q) {
  char const* group = q.kind == TopKind::Flows     ? "flow_id"
                      : q.kind == TopKind::Reasons ? "reason_id"
                      : q.kind == TopKind::Sources ? "source_id"
                                                   : "ip_proto";
  std::string const order = q.by == TopOrder::Lives ? "lives DESC, reports DESC" : "reports DESC, lives DESC";
  SqlQuery out;
  std::string inner =
      std::string("SELECT ") + group + " AS k, count(*) AS lives, sum(reports) AS reports FROM lives";
  if (q.sinceUs) {
    inner += " WHERE seen_us >= ?";
    out.params.emplace_back(std::in_place_type<int64_t>, *q.sinceUs);
  }
  inner += std::string(" GROUP BY ") + group + " ORDER BY " + order + " LIMIT ?";
  out.params.emplace_back(std::in_place_type<int64_t>, static_cast<int64_t>(q.limit));
  switch (q.kind) {
    case TopKind::Flows:
      out.sql = "SELECT f.ip_proto, f.src_ip, f.dst_ip, f.src_port, f.dst_port, t.lives, t.reports FROM (" +
                inner + ") t LEFT JOIN flows f ON f.id = t.k";
      break;
    case TopKind::Reasons:
      out.sql = "SELECT r.word0, r.word1, r.word2, r.word3, t.lives, t.reports FROM (" + inner +
                ") t JOIN reasons r ON r.id = t.k";
      break;
    case TopKind::Sources:
      out.sql = "SELECT s.address, t.lives, t.reports FROM (" + inner + ") t JOIN sources s ON s.id = t.k";
      break;
    case TopKind::Protocols:
      out.sql = "SELECT t.k, t.lives, t.reports FROM (" + inner + ") t";
      break;
  }
  out.sql += " ORDER BY " + order;
  return out;
}

std::vector<TopRow> runTop(Storage& s, TopQuery const& q) {
  std::vector<TopRow> rows;
  for (SqlRow const& r : s.select(topSql(q))) {
    TopRow row;
    size_t n = 0;
    switch (q.kind) {
      case TopKind::Flows:
        row.flow = flowAt(r, 0);
        n = 5;
        break;
      case TopKind::Reasons:
        row.reason = reasonAt(r, 0);
        n = 4;
        break;
      case TopKind::Sources:
        row.source = r[0].value_or("");
        n = 1;
        break;
      case TopKind::Protocols:
        if (r[0]) row.ipProto = static_cast<int>(toInt(r[0]));
        n = 1;
        break;
    }
    row.lives = static_cast<uint64_t>(toInt(r[n]));
    row.reports = static_cast<uint64_t>(toInt(r[n + 1]));
    rows.push_back(std::move(row));
  }
  return rows;
}

SqlQuery livesSql(LivesQuery const& q) {
  SqlQuery out;
  std::vector<std::string> where;
  // The exact term "stop_us IS NULL" lets the planner take the partial index of open lives.
  if (q.openOnly) where.push_back("l.stop_us IS NULL");
  if (q.sinceUs) {
    where.push_back("l.seen_us >= ?");
    out.params.emplace_back(std::in_place_type<int64_t>, *q.sinceUs);
  }
  if (q.source) {
    where.push_back("l.source_id = (SELECT id FROM sources WHERE address = ?)");
    out.params.emplace_back(std::in_place_type<std::string>, *q.source);
  }
  if (q.flow)
    where.push_back("l.flow_id IN (SELECT f.id FROM flows f WHERE " + q.flow->sql(out.params) + ")");
  // The newest lives are picked from lives alone (the seen_us index, walked backwards), and only those few
  // are joined to their source, reason and flow: a planner left to choose the join order may start from a
  // small table and sort millions of lives.
  std::string inner = "SELECT * FROM lives l";
  for (size_t i = 0; i < where.size(); ++i) inner += (i ? " AND " : " WHERE ") + where[i];
  inner += " ORDER BY l.seen_us DESC LIMIT ?";
  out.sql =
      "SELECT s.address, f.ip_proto, f.src_ip, f.dst_ip, f.src_port, f.dst_port, r.word0, r.word1, r.word2, "
      "r.word3, l.drop_ts, l.seen_us, l.start_us, l.stop_us, l.data_size, l.dst_mac, l.src_mac, l.ethertype, "
      "l.vlans FROM (" +
      inner +
      ") l JOIN sources s ON s.id = l.source_id JOIN reasons r ON r.id = l.reason_id "
      "LEFT JOIN flows f ON f.id = l.flow_id ORDER BY l.seen_us DESC";
  out.params.emplace_back(std::in_place_type<int64_t>, static_cast<int64_t>(q.limit));
  return out;
}

std::vector<LifeRow> runLives(Storage& s, LivesQuery const& q) {
  std::vector<LifeRow> rows;
  for (SqlRow const& r : s.select(livesSql(q))) {
    LifeRow life;
    life.source = r[0].value_or("");
    life.flow = flowAt(r, 1);
    life.reason = reasonAt(r, 6);
    life.dropTs = static_cast<uint64_t>(toInt(r[10]));
    life.seenUs = toInt(r[11]);
    life.startUs = toOptInt(r[12]);
    life.stopUs = toOptInt(r[13]);
    life.dataSize = static_cast<int>(toInt(r[14]));
    life.dstMac = r[15];
    life.srcMac = r[16];
    if (r[17]) life.etherType = static_cast<int>(toInt(r[17]));
    life.vlans = r[18];
    rows.push_back(std::move(life));
  }
  return rows;
}

SqlQuery timelineSql(TimelineQuery const& q) {
  if (q.stepUs <= 0) throw std::invalid_argument("the step must be positive");
  int64_t const first = q.sinceUs / q.stepUs * q.stepUs;
  if ((q.untilUs - first) / q.stepUs >= kMaxTimelineSteps) {
    throw std::invalid_argument("the window holds more than " + std::to_string(kMaxTimelineSteps) +
                                " steps: take a larger step or a shorter window");
  }
  // The steps are made by the engine; each counts its own range of the seen_us index.
  SqlQuery out;
  out.sql =
      "WITH RECURSIVE steps (t) AS (SELECT CAST(? AS BIGINT) UNION ALL "
      "SELECT t + CAST(? AS BIGINT) FROM steps WHERE t + CAST(? AS BIGINT) <= CAST(? AS BIGINT)) "
      "SELECT t, (SELECT count(*) FROM lives WHERE seen_us >= t AND seen_us < t + CAST(? AS BIGINT)) FROM "
      "steps "
      "ORDER BY t";
  for (int64_t v : {first, q.stepUs, q.stepUs, q.untilUs, q.stepUs})
    out.params.emplace_back(std::in_place_type<int64_t>, v);
  return out;
}

std::vector<TimelinePoint> runTimeline(Storage& s, TimelineQuery const& q) {
  std::vector<TimelinePoint> points;
  for (SqlRow const& r : s.select(timelineSql(q))) {
    points.push_back({toInt(r[0]), static_cast<uint64_t>(toInt(r[1]))});
  }
  return points;
}

}  // namespace ModCollector
