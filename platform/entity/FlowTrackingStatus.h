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
  size_t trackerCount() const { return tracker_.count(); }
  std::optional<String> trackerFirst() const { return tracker_.first(); }
  std::optional<String> trackerNext(String const& after) const { return tracker_.next(after); }
  void trackerIs(String const& name, bool inHardware) { tracker_.is(*this, name, inHardware); }
  void trackerDel(String const& name) { tracker_.del(*this, name); }

 private:
  Collection<Status, String, bool> tracker_{&Reactor::handleTracker};
};

}  // namespace Calyx::FlowTracking
