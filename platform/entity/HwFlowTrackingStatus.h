#pragma once
// HwFlowTracking::Status: the status of the hardware flow trackers in use, one FtStatus per tracker, keyed by
// tracker name. hwFtStatusIs(name) creates the tracker's status or returns the one there is; reactors hear
// handleHwFtStatus(name) when a status is created or deleted (changes inside one are heard on it).

#include <cstddef>
#include <optional>

#include "platform/core/Entity.h"
#include "platform/core/KeyedCollection.h"
#include "platform/entity/HwFlowTrackingFtStatus.h"
#include "platform/types/String.h"

namespace Calyx::HwFlowTracking {

class Status : public Object, public Notifier<Status> {
 public:
  class Reactor : public ReactorBase<Status> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleHwFtStatus(String const& /*name*/) {}
  };

  // The tracker's status, or null. Ordered walk by name; next() stays valid across changes made during the
  // walk.
  Ptr<FtStatus const> hwFtStatus(String const& name) const;
  Ptr<FtStatus> hwFtStatus(String const& name);
  size_t hwFtStatusCount() const { return hwFtStatus_.count(); }
  std::optional<String> hwFtStatusFirst() const { return hwFtStatus_.first(); }
  std::optional<String> hwFtStatusNext(String const& after) const { return hwFtStatus_.next(after); }
  // Creates the status named so (default intervals) or returns the existing one.
  Ptr<FtStatus> hwFtStatusIs(String const& name);
  void hwFtStatusDel(String const& name);
  void hwFtStatusDelAll();

 private:
  KeyedCollection<String, Ptr<FtStatus>> hwFtStatus_;
};

}  // namespace Calyx::HwFlowTracking
