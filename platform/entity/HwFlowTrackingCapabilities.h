#pragma once
// HwFlowTracking::Capabilities: what the forwarding hardware can do for flow tracking, here whether it
// mirrors its dropped packets to the CPU (mirrorOnDropSupported). Reactors hear handleMirrorOnDropSupported()
// when it changes.

#include "platform/core/Attribute.h"

namespace Calyx::HwFlowTracking {

class Capabilities : public Object, public Notifier<Capabilities> {
 public:
  class Reactor : public ReactorBase<Capabilities> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleMirrorOnDropSupported() {}
  };

  bool mirrorOnDropSupported() const { return mirrorOnDropSupported_; }
  void mirrorOnDropSupportedIs(bool v) {
    attributeIs(mirrorOnDropSupported_, v, &Reactor::handleMirrorOnDropSupported);
  }

 private:
  bool mirrorOnDropSupported_ = false;

 protected:
  ~Capabilities() override = default;
};

}  // namespace Calyx::HwFlowTracking
