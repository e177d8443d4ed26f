#pragma once
// HwFlowTracking::Status: the status of the hardware flow trackers in use, one FtStatus per tracker, keyed by
// tracker name. hwFtStatusIs(name) creates the tracker's status or returns the one there is; reactors hear
// handleHwFtStatus(name) when a status is created or deleted (changes inside one are heard on it).

#include "platform/core/Attribute.h"
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

  // The tracker's status, or null; ordered by name.
  Ptr<FtStatus const> hwFtStatus(String const& name) const { return hwFtStatus_.value(name); }
  Ptr<FtStatus> hwFtStatus(String const& name) { return hwFtStatus_.value(name); }
  // Creates the status named so (default intervals) or returns the existing one.
  Ptr<FtStatus> hwFtStatusIs(String const& name) {
    return hwFtStatus_.findOrCreate(*this, name, [&] { return make<FtStatus>(name); });
  }
  CALYX_COLLECTION_ACCESSORS(hwFtStatus, String);

 private:
  Collection<Status, String, Ptr<FtStatus>> hwFtStatus_{&Reactor::handleHwFtStatus};

 protected:
  ~Status() override = default;
};

}  // namespace Calyx::HwFlowTracking
