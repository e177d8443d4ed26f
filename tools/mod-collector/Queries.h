#pragma once
// The questions operators ask of the stored history, answered alike by `mod-collector query`, the page's JSON
// API and the page itself (which reads the API). Each query is one SQL statement that both engines run as it
// is, shaped for the indexes of the schema:
//   top       lives and reports per flow, reason, source or protocol, first seen within the window:
//             counted from the per-dimension index (flow_id, seen_us, reports) alone, a skip-scan over its
//             groups when a window is given, a plain walk in group order otherwise
//   lives     the newest lives first, from the seen_us index (open lives: its partial twin WHERE stop_us IS
//             NULL)
//   timeline  new lives per step: one count over a range of the seen_us index per step

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/mod-collector/FlowFilter.h"
#include "tools/mod-collector/Storage.h"

namespace ModCollector {

enum class TopKind { Flows, Reasons, Sources, Protocols };
enum class TopOrder { Lives, Reports };

struct TopQuery {
  TopKind kind = TopKind::Flows;
  std::optional<int64_t> sinceUs;  // lives first seen at or after; nothing: all stored
  size_t limit = 10;
  TopOrder by = TopOrder::Lives;
};

struct TopRow {
  std::optional<SampleFlow> flow;    // flows (nothing: samples without an IP flow)
  std::array<uint32_t, 4> reason{};  // reasons
  std::string source;                // sources
  std::optional<int> ipProto;        // protocols (nothing: no IP header in the sample)
  uint64_t lives = 0;
  uint64_t reports = 0;
};

struct LivesQuery {
  bool openOnly = false;
  std::optional<std::string> source;  // the exporter's address
  std::optional<FlowFilter> flow;
  std::optional<int64_t> sinceUs;
  size_t limit = 50;
};

struct LifeRow {
  std::string source;
  std::optional<SampleFlow> flow;
  std::array<uint32_t, 4> reason{};
  uint64_t dropTs = 0;
  int64_t seenUs = 0;
  std::optional<int64_t> startUs;
  std::optional<int64_t> stopUs;
  int dataSize = 0;
  std::optional<std::string> dstMac, srcMac, vlans;
  std::optional<int> etherType;
};

struct TimelineQuery {
  int64_t sinceUs = 0;
  int64_t untilUs = 0;
  int64_t stepUs = 60 * 1000000LL;
};

struct TimelinePoint {
  int64_t atUs = 0;  // the step's start; steps start on whole multiples of the step since the epoch
  uint64_t lives = 0;
};

inline constexpr int64_t kMaxTimelineSteps = 1000;

SqlQuery topSql(TopQuery const& q);
SqlQuery livesSql(LivesQuery const& q);
// Throws std::invalid_argument when the window holds more than kMaxTimelineSteps steps.
SqlQuery timelineSql(TimelineQuery const& q);

std::vector<TopRow> runTop(Storage& s, TopQuery const& q);
std::vector<LifeRow> runLives(Storage& s, LivesQuery const& q);
std::vector<TimelinePoint> runTimeline(Storage& s, TimelineQuery const& q);

char const* topKindName(TopKind k);

}  // namespace ModCollector
