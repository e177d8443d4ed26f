#include "tools/mod-collector/CollectorMetrics.h"

#include <sstream>

#include "ops/PrometheusText.h"

namespace ModCollector {
using Ops::PrometheusText;

namespace {

std::string label(std::string const& name, std::string const& value) {
  return PrometheusText::label(name, value);
}

}  // namespace

std::string metricsText(CollectorState const& s) {
  PrometheusText w;
  w.family("mod_collector_reports_received_total", "counter", "Reports received, by type and exporter.");
  for (auto const& [source, c] : s.summary.bySource()) {
    w.sample("mod_collector_reports_received_total", c.start,
             label("type", "start") + "," + label("source", source));
    w.sample("mod_collector_reports_received_total", c.stop,
             label("type", "stop") + "," + label("source", source));
  }
  w.family("mod_collector_datagrams_rejected_total", "counter", "Datagrams that were not reports, by fault.");
  for (auto const& [kind, n] : s.summary.rejectedByKind()) {
    w.sample("mod_collector_datagrams_rejected_total", n, label("reason", kind));
  }
  WriterStats const& ws = s.writer;
  w.family("mod_collector_reports_stored_total", "counter", "Reports new to the database.");
  w.sample("mod_collector_reports_stored_total", ws.stored);
  w.family("mod_collector_reports_duplicate_total", "counter", "Reports the database held already.");
  w.sample("mod_collector_reports_duplicate_total", ws.duplicates);
  w.family("mod_collector_reports_not_stored_total", "counter",
           "Reports not stored: the queue was full (the database fell behind), the database refused them, or "
           "they were still queued at exit.");
  w.sample("mod_collector_reports_not_stored_total", ws.droppedQueueFull, label("cause", "queue_full"));
  w.sample("mod_collector_reports_not_stored_total", ws.lostRefused, label("cause", "refused"));
  w.sample("mod_collector_reports_not_stored_total", ws.unwrittenAtExit, label("cause", "unwritten_at_exit"));
  w.family("mod_collector_queue_depth", "gauge", "Reports waiting to be written.");
  w.sample("mod_collector_queue_depth", ws.queueDepth);
  w.family("mod_collector_queue_capacity", "gauge", "Reports the queue holds at most.");
  w.sample("mod_collector_queue_capacity", s.queueCapacity);
  w.family("mod_collector_write_seconds", "histogram", "Time to write one batch, one transaction.");
  for (size_t i = 0; i < WriterStats::kLatencyBounds.size(); ++i) {
    std::ostringstream le;
    le << WriterStats::kLatencyBounds[i];
    w.sample("mod_collector_write_seconds_bucket", ws.latencyBuckets[i], label("le", le.str()));
  }
  w.sample("mod_collector_write_seconds_bucket", ws.batches, label("le", "+Inf"));
  w.sample("mod_collector_write_seconds_sum", ws.latencySum);
  w.sample("mod_collector_write_seconds_count", ws.batches);
  w.family("mod_collector_database_writing", "gauge", "1 while writes succeed, 0 while they fail.");
  w.sample("mod_collector_database_writing", ws.writing ? 1 : 0);
  w.family("mod_collector_lives_deleted_total", "counter", "Lives deleted by the retention.");
  w.sample("mod_collector_lives_deleted_total", ws.livesDeleted);
  return w.str();
}

nlohmann::ordered_json statusJson(CollectorState const& s) {
  uint64_t start = 0, stop = 0;
  for (auto const& [source, c] : s.summary.bySource()) {
    start += c.start;
    stop += c.stop;
  }
  WriterStats const& ws = s.writer;
  return {{"storage", s.storage},
          {"received", {{"start", start}, {"stop", stop}}},
          {"sources", s.summary.bySource().size()},
          {"rejected", s.summary.rejected()},
          {"stored", ws.stored},
          {"duplicates", ws.duplicates},
          {"not_stored", ws.droppedQueueFull + ws.lostRefused + ws.unwrittenAtExit},
          {"queue_depth", ws.queueDepth},
          {"queue_capacity", s.queueCapacity},
          {"writing", ws.writing}};
}

}  // namespace ModCollector
