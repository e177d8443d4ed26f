#pragma once
// FlowTracking::ClearCounterReq: an operator's request to clear flow-tracking counters. Three fields, in this
// order: the tracker the request was made for, the exporter whose counters are to be cleared (empty: every
// exporter), and the time of the request (seconds). A request time of 0 means "no request"; each new request
// carries a new time, so two requests for the same names still differ.

#include <compare>

#include "platform/types/String.h"

namespace Calyx::FlowTracking {

class ClearCounterReq {
 public:
  ClearCounterReq() = default;
  ClearCounterReq(String trackerName, String exporterName, double reqTime)
      : trackerName_(std::move(trackerName)), exporterName_(std::move(exporterName)), reqTime_(reqTime) {}

  String const& trackerName() const { return trackerName_; }
  String const& exporterName() const { return exporterName_; }
  double reqTime() const { return reqTime_; }
  bool isRequest() const { return reqTime_ != 0; }

  friend bool operator==(ClearCounterReq const&, ClearCounterReq const&) = default;

 private:
  String trackerName_;
  String exporterName_;
  double reqTime_ = 0;
};

}  // namespace Calyx::FlowTracking
