#pragma once
// The collector's state as the page's server shows it: /metrics in the Prometheus text format (each family
// with # HELP and # TYPE) and /api/status as JSON. Families:
//   mod_collector_reports_received_total{type,source}   reports received, by type and exporter
//   mod_collector_datagrams_rejected_total{reason}      datagrams that were not reports, by the kind of fault
//   mod_collector_reports_stored_total                  reports new to the database
//   mod_collector_reports_duplicate_total               reports the database held already
//   mod_collector_reports_not_stored_total{cause}       queue_full (the database fell behind), refused,
//                                                       unwritten_at_exit
//   mod_collector_queue_depth, mod_collector_queue_capacity
//   mod_collector_write_seconds                         histogram of one batch's write
//   mod_collector_database_writing                      0 while writes fail
//   mod_collector_lives_deleted_total                   by the retention

#include <nlohmann/json.hpp>
#include <string>

#include "tools/mod-collector/CollectorSummary.h"
#include "tools/mod-collector/StoreWriter.h"

namespace ModCollector {

struct CollectorState {
  CollectorSummary summary;
  WriterStats writer;
  std::string storage;
  size_t queueCapacity = 0;
};

std::string metricsText(CollectorState const& s);
nlohmann::ordered_json statusJson(CollectorState const& s);

}  // namespace ModCollector
