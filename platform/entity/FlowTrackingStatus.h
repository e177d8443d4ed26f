#pragma once
// FlowTracking::Status: what became of the user's flow-tracking configuration: for each configured tracker,
// whether the hardware runs it (the hardware runs one tracker at a time; the others wait). Written by the
// flow-tracking configuration base. Reactors hear handleTracker(name) when a tracker's entry appears, changes
// or goes away.

#include "platform/core/Attribute.h"
#include "platform/types/String.h"

namespace Calyx::FlowTracking {

class Status : public Object, public Notifier<Status> {
 public:
  class Reactor : public ReactorBase<Status> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleTracker(String const& /*name*/) {}
  };

  // True when the hardware runs the tracker; nullopt when it is not configured.
  std::optional<bool> trackerInHardware(String const& name) const { return tracker_.get(name); }
  void trackerIs(String const& name, bool inHardware) { tracker_.is(*this, name, inHardware); }
  CALYX_COLLECTION_ACCESSORS(tracker, String);

 private:
  Collection<Status, String, bool> tracker_{&Reactor::handleTracker};

 protected:
  ~Status() override = default;
};

}  // namespace Calyx::FlowTracking
