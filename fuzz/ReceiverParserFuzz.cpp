// Feeds arbitrary bytes to the mirrored drop frame parser. Whatever the bytes, the parser either rejects the
// frame or stores a key and a report whose sample stays within its 80 bytes; sanitizers watch every read.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "mirror_on_drop/MirrorOnDropReceiverSm.h"
#include "platform/types/PktManager.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

class Check : public Exchanger::Reactor {
 public:
  using Reactor::Reactor;
  void handleCounterProcessedPacket() override {
    auto const& r = static_cast<Exchanger const*>(notifier())->report();
    if (r.dataSize() > Report::Report::kPayloadSize) std::abort();
  }
};

struct Harness {
  Ptr<Exchanger> exchanger = make<Exchanger>();
  Check check{exchanger};
  Ptr<ReceiverSm> receiver =
      make<ReceiverSm>(make<CalyxCentral::FeatureAgentCommonSmData>(), make<Interface::PamDesiredIntfDir>(),
                       make<Interface::EthDevPamCollection>(), exchanger);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static Harness harness;
  auto pkt = PktManager::global().newPkt(size + 256);
  pkt->assign(data, size);
  harness.receiver->processPacket(IntfId("et1"), pkt);
  return 0;
}
