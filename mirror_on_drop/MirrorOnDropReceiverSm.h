#pragma once
// ReceiverSm: packet access on the interfaces that carry the chip's mirrored drop frames, and the parser of
// those frames. It exists while the feature is on; the dispatcher makes and drops it.
//
// It asks for packet access on every interface the feature agent lists (fcsd), reads every module the
// platform has opened (pamCollection; reading follows the modules, not the wishes), takes every queued frame
// in one pass, counts it (counterReceivedPacket) and parses it. A valid frame's flow key with its interface
// goes into the Exchanger's emtKey, its drop report into report, and then counterProcessedPacket moves: the
// dispatcher reads both inside that increment, before the next frame overwrites them. A bad frame is one
// trace line at level 3 and changes nothing. The wishes it made are left in place when it goes: only an
// interface leaving fcsd withdraws one.

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "mirror_on_drop/MirrorOnDropExchanger.h"
#include "platform/entity/CalyxCentralFeatureAgentCommonSmData.h"
#include "platform/entity/InterfaceEthDevPamCollection.h"
#include "platform/entity/InterfacePamDesiredIntfDir.h"
#include "platform/entity/Pam.h"
#include "platform/types/Pkt.h"

namespace MirrorOnDrop {

class ReceiverSm : public Calyx::Object {
 public:
  using FeatureAgentCommonSmData = Calyx::CalyxCentral::FeatureAgentCommonSmData;
  using PamDesiredIntfDir = Calyx::Interface::PamDesiredIntfDir;
  using EthDevPamCollection = Calyx::Interface::EthDevPamCollection;

  // The kernel filter for the modules the receiver reads: only the chip's mirrored drop frames.
  static std::string socketFilter();

  ReceiverSm(Calyx::Ptr<FeatureAgentCommonSmData const> fcsd, Calyx::Ptr<PamDesiredIntfDir> pamDesiredIntfDir,
             Calyx::Ptr<EthDevPamCollection const> pamCollection, Calyx::Ptr<Exchanger> exchanger);

  Calyx::Ptr<FeatureAgentCommonSmData const> const& fcsd() const { return fcsd_; }
  Calyx::Ptr<PamDesiredIntfDir> const& pamDesiredIntfDir() const { return pamDesiredIntfDir_; }
  Calyx::Ptr<EthDevPamCollection const> const& pamCollection() const { return pamCollection_; }
  Calyx::Ptr<Exchanger> const& exchanger() const { return exchanger_; }
  // The interfaces whose packet access is read.
  size_t pamCount() const { return pam_.size(); }
  bool pam(Calyx::IntfId const& intfId) const { return pam_.count(intfId) > 0; }

  void handleIntf(Calyx::IntfId const& intfId);
  void pamIs(Calyx::IntfId const& intfId, Calyx::Ptr<Calyx::Pam const> pam);
  void pamDel(Calyx::IntfId const& intfId);
  void pamDelAll();
  void handlePamReadable(Calyx::IntfId const& intfId);
  // Parses one mirrored frame read on intf. Consumes the frame's head as it goes.
  void processPacket(Calyx::IntfId const& intf, Calyx::Ptr<Calyx::Pkt> const& pkt);

  void initialize();
  void finalize();
  void cleanup();

 protected:
  ~ReceiverSm() override;

 private:
  class FcsdReactor;
  // Reads every queued frame of pam, intfId's module (handlePamReadable without the look-up).
  void pamRead(Calyx::IntfId const& intfId, Calyx::Ptr<Calyx::Pam const> const& pam);
  class PamCollectionReactor;
  class PamReactor;

  Calyx::Ptr<FeatureAgentCommonSmData const> fcsd_;
  Calyx::Ptr<PamDesiredIntfDir> pamDesiredIntfDir_;
  Calyx::Ptr<EthDevPamCollection const> pamCollection_;
  Calyx::Ptr<Exchanger> exchanger_;
  std::map<Calyx::IntfId, std::unique_ptr<PamReactor>> pam_;
  uint64_t pamGeneration_ = 0;  // moves on every change of pam_
  std::unique_ptr<FcsdReactor> fcsdReactor_;
  std::unique_ptr<PamCollectionReactor> pamCollectionReactor_;
};

}  // namespace MirrorOnDrop
