#pragma once
// What decides whether a feature may use the chip's exact-match tables:
// - CalyxCentral::FlexibleUftCapabilityStatus: what the chip's flexible forwarding tables offer, here whether
//   they can hold exact-match entries (exactMatchSupported);
// - CalyxCentral::CalyxMiscConfig: the operator's switches, here whether exact-match entries may be used
//   (exactMatchEnabled).
// Both default to off. Reactors hear the change of each attribute.

#include "platform/core/Attribute.h"

namespace Calyx::CalyxCentral {

class FlexibleUftCapabilityStatus : public Object, public Notifier<FlexibleUftCapabilityStatus> {
 public:
  class Reactor : public ReactorBase<FlexibleUftCapabilityStatus> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleExactMatchSupported() {}
  };

  bool exactMatchSupported() const { return exactMatchSupported_; }
  void exactMatchSupportedIs(bool v) {
    attributeIs(exactMatchSupported_, v, &Reactor::handleExactMatchSupported);
  }

 private:
  bool exactMatchSupported_ = false;

 protected:
  ~FlexibleUftCapabilityStatus() override = default;
};

class CalyxMiscConfig : public Object, public Notifier<CalyxMiscConfig> {
 public:
  class Reactor : public ReactorBase<CalyxMiscConfig> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleExactMatchEnabled() {}
  };

  bool exactMatchEnabled() const { return exactMatchEnabled_; }
  void exactMatchEnabledIs(bool v) { attributeIs(exactMatchEnabled_, v, &Reactor::handleExactMatchEnabled); }

 private:
  bool exactMatchEnabled_ = false;

 protected:
  ~CalyxMiscConfig() override = default;
};

}  // namespace Calyx::CalyxCentral
