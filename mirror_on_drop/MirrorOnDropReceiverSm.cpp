#include "mirror_on_drop/MirrorOnDropReceiverSm.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "mirror_on_drop/MirrorOnDropTraceManager.h"
#include "platform/types/ByteOrder.h"
#include "platform/types/EthAddr.h"
#include "platform/types/EtherType.h"
#include "platform/types/IpHeader.h"

namespace MirrorOnDrop {

using Calyx::IntfId;
using Calyx::Pkt;
using Calyx::Ptr;

namespace {

Calyx::TraceHandle const& trace() {
  static Calyx::TraceHandle const handle("MOD-Receiver");
  return handle;
}

constexpr size_t kEthHeaderSize = 14;
constexpr size_t kMirroredMinSize = kEthHeaderSize + Header::kSize;
constexpr size_t kMacsSize = 12;
constexpr size_t kVlanTagSize = 4;
constexpr size_t kIp4MinHeader = 20;
constexpr size_t kIp6Header = 40;

bool isTcpOrUdp(uint8_t proto) {
  return proto == Calyx::kIpProtoTcp || proto == Calyx::kIpProtoUdp;
}

// What the IP layer yields for the flow key: the protocol and where the two addresses lie in the frame (IPv4:
// 4 bytes each, IPv6: 16), read from there straight into the key's slot.
struct IpPart {
  uint8_t proto = 0;
  bool v6 = false;
  uint8_t const* addresses = nullptr;  // source, then destination

  Calyx::IpGenAddr src() const {
    return v6 ? Calyx::IpGenAddr(Calyx::Ip6Addr::fromBytes(addresses)) : ip4(0);
  }
  Calyx::IpGenAddr dst() const {
    return v6 ? Calyx::IpGenAddr(Calyx::Ip6Addr::fromBytes(addresses + 16)) : ip4(4);
  }

 private:
  Calyx::IpGenAddr ip4(size_t at) const { return Calyx::Ip4Addr::fromBytes(addresses + at); }
};

// Each check below either accepts and consumes its header, or writes its rejection line and returns false.

bool hasValidIp6Header(Pkt& pkt, IpPart& ip) {
  size_t const remaining = pkt.bytes();
  if (remaining < kIp6Header) {
    MOD_TRACE(trace(), 3, "Dropping IPv6 packet: undersized, size = " << remaining << ".");
    return false;
  }
  Calyx::Ip6HeaderView const h(pkt.data());
  if (h.version() != 6) {
    MOD_TRACE(trace(), 3, "Dropping IPv6 packet: invalid version = " << unsigned(h.version()) << ".");
    return false;
  }
  if (!isTcpOrUdp(h.nextHeader())) {
    MOD_TRACE(
        trace(), 3,
        "Dropping IPv6 packet: not a TCP/UDP next header's protocol = " << unsigned(h.nextHeader()) << ".");
    return false;
  }
  ip = {h.nextHeader(), true, pkt.data() + 8};
  pkt.headDel(kIp6Header);
  return true;
}

bool hasValidIp4Header(Pkt& pkt, IpPart& ip) {
  size_t const remaining = pkt.bytes();
  if (remaining < kIp4MinHeader) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: undersized, size = " << remaining << ".");
    return false;
  }
  Calyx::Ip4HeaderView const h(pkt.data());
  size_t const headerLength = h.headerLength();
  if (headerLength < kIp4MinHeader) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: undersized header, size = " << headerLength << ".");
    return false;
  }
  if (remaining < headerLength) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: oversized header, size = " << headerLength << ".");
    return false;
  }
  // Summed over the whole header, its own checksum field included, a correct header yields 0.
  if (uint16_t const checksum = h.checksumComputed(); checksum != 0) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: invalid checksum = " << checksum << ".");
    return false;
  }
  if (h.version() != 4) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: invalid version = " << unsigned(h.version()) << ".");
    return false;
  }
  if (h.fragmentOffset() != 0) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: not a head fragment.");
    return false;
  }
  if (!isTcpOrUdp(h.protocol())) {
    MOD_TRACE(trace(), 3, "Dropping IPv4 packet: not a TCP/UDP protocol = " << unsigned(h.protocol()) << ".");
    return false;
  }
  ip = {h.protocol(), false, pkt.data() + 12};
  pkt.headDel(headerLength);
  return true;
}

// Fills the Exchanger's key slot where it is, field by field: a key built elsewhere and copied in would be
// read back while its bytes are still being written, which costs more than the parse.
void emtKeyPlace(Emt::Key& slot, IpPart const& ip, uint16_t srcPort, uint16_t dstPort, IntfId const& intf) {
  FlowKey& flow = slot.flowKey();
  flow.ipProtoIs(ip.proto);
  flow.srcPortIs(srcPort);
  flow.dstPortIs(dstPort);
  if (ip.v6) {
    flow.srcIp().v6Is(ip.addresses);
    flow.dstIp().v6Is(ip.addresses + 16);
  } else {
    flow.srcIp().v4Is(ip.addresses);
    flow.dstIp().v4Is(ip.addresses + 4);
  }
  slot.intfIdIs(intf);
}

// The drop report: the header's timestamp, no reason, and the first bytes of the dropped frame as rebuilt by
// joining the mirrored frame's MAC addresses with everything from the dropped frame's own EtherType on, the
// rest of the sample zero. Every byte of the slot is written, so nothing is cleared first; a frame long
// enough to fill the sample (the usual case) is copied in fixed-size pieces.
void reportPlace(Report::Report& slot, uint8_t const* frame, size_t length, Header const& header) {
  constexpr size_t kRestMax = Report::Report::kPayloadSize - kMacsSize;
  uint8_t const* const rest = frame + kEthHeaderSize + Header::kSize - 2;
  size_t const restSize = std::min(length - kMirroredMinSize + 2, kRestMax);
  slot.timestampIs(header.timestamp());
  slot.reasonIs(Drop::Reason());
  uint8_t* const sample = slot.payload();
  std::memcpy(sample, frame, kMacsSize);
  if (restSize == kRestMax) {
    std::memcpy(sample + kMacsSize, rest, kRestMax);
  } else {
    std::memcpy(sample + kMacsSize, rest, restSize);
    std::memset(sample + kMacsSize + restSize, 0, kRestMax - restSize);
  }
  slot.dataSizeIs(static_cast<uint8_t>(kMacsSize + restSize));
}

}  // namespace

// --- reactors ---

class ReceiverSm::FcsdReactor : public FeatureAgentCommonSmData::Reactor {
 public:
  FcsdReactor(ReceiverSm& sm, Ptr<FeatureAgentCommonSmData const> fcsd) : Reactor(std::move(fcsd)), sm_(sm) {}
  void handleIntf(IntfId const& intfId) override { sm_.handleIntf(intfId); }

 private:
  ReceiverSm& sm_;
};

class ReceiverSm::PamCollectionReactor : public EthDevPamCollection::Reactor {
 public:
  PamCollectionReactor(ReceiverSm& sm, Ptr<EthDevPamCollection const> collection)
      : Reactor(std::move(collection)), sm_(sm) {}
  void handleIntfPam(IntfId const& intfId) override {
    if (auto pam = notifier()->intfPam(intfId)) {
      sm_.pamIs(intfId, std::move(pam));
    } else {
      sm_.pamDel(intfId);
    }
  }

 private:
  ReceiverSm& sm_;
};

class ReceiverSm::PamReactor : public Calyx::Pam::Reactor {
 public:
  PamReactor(ReceiverSm& sm, IntfId const& intfId, Ptr<Calyx::Pam const> pam)
      : Reactor(std::move(pam)), sm_(sm), intfId_(intfId) {}
  // The reactor itself stands for its module (a reactor removed meanwhile is never called): no look-up.
  void handleReadable() override { sm_.pamRead(intfId_, Ptr<Calyx::Pam const>(notifier())); }

 private:
  ReceiverSm& sm_;
  IntfId intfId_;
};

// --- life cycle ---

ReceiverSm::ReceiverSm(Ptr<FeatureAgentCommonSmData const> fcsd, Ptr<PamDesiredIntfDir> pamDesiredIntfDir,
                       Ptr<EthDevPamCollection const> pamCollection, Ptr<Exchanger> exchanger)
    : fcsd_(std::move(fcsd)),
      pamDesiredIntfDir_(std::move(pamDesiredIntfDir)),
      pamCollection_(std::move(pamCollection)),
      exchanger_(std::move(exchanger)),
      fcsdReactor_(std::make_unique<FcsdReactor>(*this, fcsd_)),
      pamCollectionReactor_(std::make_unique<PamCollectionReactor>(*this, pamCollection_)) {
  initialize();
  for (auto intf = pamCollection_->intfPamFirst(); intf; intf = pamCollection_->intfPamNext(*intf)) {
    pamIs(*intf, pamCollection_->intfPam(*intf));
  }
  finalize();
}

ReceiverSm::~ReceiverSm() {
  cleanup();
  fcsdReactor_.reset();
  pamCollectionReactor_.reset();
  pamDelAll();
}

std::string ReceiverSm::socketFilter() {
  char text[32];
  std::snprintf(text, sizeof text, "ether proto 0x%04x", Constant::vorlanModEthType());
  return text;
}

void ReceiverSm::initialize() {
  MOD_TRACE(trace(), 8, "ReceiverSm::initialize()");
}

void ReceiverSm::finalize() {
  MOD_TRACE(trace(), 8, "ReceiverSm::finalize()");
  Detail::TraceManager::Scope scope;
  for (auto intf = fcsd_->intfFirst(); intf; intf = fcsd_->intfNext(*intf)) handleIntf(*intf);
}

void ReceiverSm::cleanup() {
  MOD_TRACE(trace(), 8, "ReceiverSm::cleanup()");
}

void ReceiverSm::handleIntf(IntfId const& intfId) {
  MOD_TRACE(trace(), 8, "ReceiverSm::handleIntf(" << intfId.shortName() << ")");
  Detail::TraceManager::Scope scope;
  if (fcsd_->intf(intfId)) {
    MOD_TRACE(trace(), 4, "Creating PAM desired entry.");
    pamDesiredIntfDir_->intfDesiredIs(intfId, true);
  } else {
    MOD_TRACE(trace(), 4, "Deleting PAM desired entry.");
    pamDesiredIntfDir_->intfDesiredDel(intfId);
  }
}

void ReceiverSm::pamIs(IntfId const& intfId, Ptr<Calyx::Pam const> pam) {
  ++pamGeneration_;
  auto it = pam_.find(intfId);
  if (it == pam_.end()) {
    pam_.emplace(intfId, std::make_unique<PamReactor>(*this, intfId, std::move(pam)));
    return;
  }
  it->second->notifierIs(std::move(pam));
}

void ReceiverSm::pamDel(IntfId const& intfId) {
  ++pamGeneration_;
  pam_.erase(intfId);
}

void ReceiverSm::pamDelAll() {
  ++pamGeneration_;
  pam_.clear();
}

void ReceiverSm::handlePamReadable(IntfId const& intfId) {
  auto it = pam_.find(intfId);
  if (it == pam_.end()) {
    MOD_TRACE(trace(), 8, "ReceiverSm::handlePamReadable(" << intfId.shortName() << ")");
    return;
  }
  pamRead(intfId, Ptr<Calyx::Pam const>(it->second->notifier()));
}

void ReceiverSm::pamRead(IntfId const& intfId, Ptr<Calyx::Pam const> const& pam) {
  MOD_TRACE(trace(), 8, "ReceiverSm::handlePamReadable(" << intfId.shortName() << ")");
  Detail::TraceManager::Scope scope;
  // A reactor of the dispatcher may drop this receiver, or the module, while a frame is handled: keep both
  // alive until the pass ends, and stop reading once the module is no longer ours.
  Ptr<ReceiverSm> const self(this);
  MOD_TRACE(trace(), 4, "Retrieving " << pam->curRxPkts() << " packet(s).");
  uint64_t generation = pamGeneration_;
  while (true) {
    // The modules changed while a frame was handled: read on only if this one is still ours.
    if (generation != pamGeneration_) {
      auto current = pam_.find(intfId);
      if (current == pam_.end() || current->second->notifier() != pam.get()) return;
      generation = pamGeneration_;
    }
    Ptr<Pkt> frame = pam->rxPkt();
    if (!frame) return;
    exchanger_->counterReceivedPacketInc(1);
    processPacket(intfId, frame);
  }
}

// --- the parser ---

void ReceiverSm::processPacket(IntfId const& intf, Ptr<Pkt> const& pkt) {
  MOD_TRACE(trace(), 8, "ReceiverSm::processPacket(" << intf.shortName() << ")");
  Detail::TraceManager::Scope scope;
  Pkt& p = *pkt;
  size_t const length = p.bytes();
  if (length < kMirroredMinSize) {
    MOD_TRACE(trace(), 3, "Dropping Ethernet packet: undersized, size = " << length << ".");
    return;
  }
  // Deleting head bytes only moves the data pointer: the frame's first bytes stay where they are for the
  // sample.
  uint8_t const* const frame = p.data();
  if (uint16_t const etherType = Calyx::loadBe16(frame + kMacsSize);
      etherType != Constant::vorlanModEthType()) {
    MOD_TRACE(trace(), 3,
              "Dropping Ethernet packet: non-Mirror-On-Drop EtherType = 0x" << std::hex << etherType << ".");
    return;
  }
  p.headDel(kEthHeaderSize);
  Header const header(p.data());
  p.headDel(Header::kSize);

  uint16_t etherType = header.typeOrLen();
  for (int tags = 0; etherType == Calyx::kEtherTypeVlan && tags < 2; ++tags) {
    if (p.bytes() < kVlanTagSize) {
      MOD_TRACE(trace(), 3, "Dropping Ethernet packet: truncated 802.1Q header, size = " << p.bytes() << ".");
      return;
    }
    etherType = Calyx::loadBe16(p.data() + 2);
    p.headDel(kVlanTagSize);
  }

  IpPart ip;
  if (etherType == Calyx::kEtherTypeIp6) {
    if (!hasValidIp6Header(p, ip)) return;
  } else if (etherType == Calyx::kEtherTypeIp4) {
    if (!hasValidIp4Header(p, ip)) return;
  } else {
    MOD_TRACE(trace(), 3,
              "Dropping Ethernet packet: non IPv4/v6 EtherType = " << std::hex << etherType << ".");
    return;
  }

  if (p.bytes() < 4) {
    MOD_TRACE(trace(), 3,
              "Dropping " << (ip.proto == Calyx::kIpProtoTcp ? "TCP" : "UDP")
                          << " packet: undersized header, size = " << p.bytes() << ".");
    return;
  }
  uint16_t const srcPort = Calyx::loadBe16(p.data());
  uint16_t const dstPort = Calyx::loadBe16(p.data() + 2);

  if (trace().isEnabled(5)) {
    MOD_TRACE(trace(), 5,
              "Storing report: packet processed, size = { original = "
                  << header.packetSize().value() << ", trimmed = " << length - Header::kSize
                  << " }, timestamp = " << header.timestamp().value() << ",");
    MOD_TRACE(trace(), 5,
              "sMac = " << Calyx::EthAddr::fromBytes(frame + 6).stringValue()
                        << ", dMac = " << Calyx::EthAddr::fromBytes(frame).stringValue() << ",");
    MOD_TRACE(trace(), 5, "sIp = " << ip.src() << ", dIp = " << ip.dst() << ",");
    MOD_TRACE(
        trace(), 5,
        "ipProto = " << ipProtoName(ip.proto) << ", sPort = " << srcPort << ", dPort = " << dstPort << ".");
  }
  emtKeyPlace(exchanger_->emtKeySlot(), ip, srcPort, dstPort, intf);
  reportPlace(exchanger_->reportSlot(), frame, length, header);
  exchanger_->counterProcessedPacketInc(1);
}

}  // namespace MirrorOnDrop
