#pragma once
// Interface::AllIntfStatusLocalDir: the interface state local to this agent: the packet-access modules opened
// in this process (pamCollection), which the packet-access manager writes and the feature reads. Made with an
// empty collection; the directory keeps the same collection for its life.

#include "platform/core/Entity.h"
#include "platform/entity/InterfaceEthDevPamCollection.h"

namespace Calyx::Interface {

class AllIntfStatusLocalDir : public Object {
 public:
  AllIntfStatusLocalDir() : pamCollection_(make<EthDevPamCollection>()) {}

  Ptr<EthDevPamCollection> const& pamCollection() const { return pamCollection_; }

 private:
  Ptr<EthDevPamCollection> const pamCollection_;

 protected:
  ~AllIntfStatusLocalDir() override = default;
};

}  // namespace Calyx::Interface
