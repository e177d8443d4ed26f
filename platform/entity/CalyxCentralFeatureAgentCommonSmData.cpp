#include "platform/entity/CalyxCentralFeatureAgentCommonSmData.h"

namespace Calyx::CalyxCentral {

void FeatureAgentCommonSmData::intfIs(IntfId const& intfId) {
  if (!intf_.is(intfId, true)) return;
  notify(&Reactor::handleIntf, intfId);
}

void FeatureAgentCommonSmData::intfDel(IntfId const& intfId) {
  if (!intf_.del(intfId)) return;
  notify(&Reactor::handleIntf, intfId);
}

void FeatureAgentCommonSmData::intfDelAll() {
  intf_.delAll([this](IntfId const& intfId) { notify(&Reactor::handleIntf, intfId); });
}

}  // namespace Calyx::CalyxCentral
