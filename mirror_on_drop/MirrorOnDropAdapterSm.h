#pragma once
// AdapterSm: turns the exact-match entries the dispatcher asks for (Emt::Config, one per flow and interface)
// into the chip's exact-match entries, and reports back in Emt::Status whether each is installed.
//
// One hardware entry per flow: it matches the flow (protocol, addresses, ports) on every interface that asked
// for it. The adapter keeps, per flow, the set of those interfaces (configEntryInterfaceSet, by FlowKey); the
// first interface makes the entry, more interfaces widen its set, and the entry goes with the last one. The
// entry is written to the IPv4 or the IPv6 table by the flow's address family. Every (flow, interface) of
// Emt::Config has an Emt::Status entry saying whether the flow's hardware entry is installed.
//
// Exact match is available when the flexible forwarding tables can hold exact-match entries and the operator
// allows it. When it is not, nothing is written to the hardware and Emt::Status says "not installed" for
// every requested entry; the feature's reports do not depend on it. When it becomes available the entries are
// written; when it stops being available they are taken out of the hardware.
//
// Invariants (fatal assertions): a flow's addresses are of one family ("af == key.dstIp().af()"), and the
// hardware never reports installed an entry the adapter did not ask for ("Unexpected missing installed key").

#include <memory>
#include <set>
#include <unordered_map>

#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "platform/entity/CalyxCentralExactMatchSettings.h"
#include "platform/entity/CalyxEmExactMatchEntry.h"

namespace MirrorOnDrop {

class AdapterSm : public Calyx::Object {
 public:
  using FlexibleUftCapabilityStatus = Calyx::CalyxCentral::FlexibleUftCapabilityStatus;
  using CalyxMiscConfig = Calyx::CalyxCentral::CalyxMiscConfig;
  using ExactMatchEntryConfig = Calyx::CalyxEm::ExactMatchEntryConfig;
  using ExactMatchEntryStatus = Calyx::CalyxEm::ExactMatchEntryStatus;

  // The interfaces that asked for one flow's entry.
  struct EntryInterfaceSet {
    std::set<Calyx::IntfId> intfSet;
  };

  AdapterSm(Calyx::Ptr<FlexibleUftCapabilityStatus const> flexibleUftCapabilityStatus,
            Calyx::Ptr<CalyxMiscConfig const> miscConfig, Calyx::Ptr<Emt::Config const> emtConfig,
            Calyx::Ptr<Emt::Status> emtStatus, Calyx::Ptr<ExactMatchEntryStatus const> emtStatusIpv4,
            Calyx::Ptr<ExactMatchEntryConfig> emtConfigIpv4,
            Calyx::Ptr<ExactMatchEntryStatus const> emtStatusIpv6,
            Calyx::Ptr<ExactMatchEntryConfig> emtConfigIpv6);

  bool emAvailable() const;
  size_t configEntryInterfaceSetCount() const { return configEntryInterfaceSet_.size(); }
  EntryInterfaceSet const* configEntryInterfaceSet(FlowKey const& flow) const;

  void handleEmtConfigEntry(Emt::Key const& key);
  void handleEmtStatusEntryIpv4(Calyx::CalyxEm::ExactMatchKey const& key);
  void handleEmtStatusEntryIpv6(Calyx::CalyxEm::ExactMatchKey const& key);
  void handleEmtStatusEntryCommon(Calyx::CalyxEm::ExactMatchKey const& key,
                                  ExactMatchEntryStatus const& status);
  void handleEmAvailable();

  void initialize();
  void finalize();
  void cleanup();

 protected:
  ~AdapterSm() override;

 private:
  class EmtConfigReactor;
  class HwStatusReactor;
  class CapabilityReactor;
  class MiscReactor;

  static Calyx::CalyxEm::ExactMatchKey hwKey(FlowKey const& flow);
  static FlowKey flowOf(Calyx::CalyxEm::ExactMatchKey const& key);
  ExactMatchEntryConfig& table(FlowKey const& flow) const;
  ExactMatchEntryStatus const& statusTable(FlowKey const& flow) const;
  // Writes the flow's hardware entry (or removes it) and the Emt::Status of its interfaces.
  void configIs(FlowKey const& flow);
  void configDel(FlowKey const& flow);
  void statusSync(FlowKey const& flow);

  Calyx::Ptr<FlexibleUftCapabilityStatus const> flexibleUftCapabilityStatus_;
  Calyx::Ptr<CalyxMiscConfig const> miscConfig_;
  Calyx::Ptr<Emt::Config const> emtConfig_;
  Calyx::Ptr<Emt::Status> emtStatus_;
  Calyx::Ptr<ExactMatchEntryStatus const> emtStatusIpv4_;
  Calyx::Ptr<ExactMatchEntryConfig> emtConfigIpv4_;
  Calyx::Ptr<ExactMatchEntryStatus const> emtStatusIpv6_;
  Calyx::Ptr<ExactMatchEntryConfig> emtConfigIpv6_;
  std::unordered_map<FlowKey, EntryInterfaceSet> configEntryInterfaceSet_;  // no order is relied on
  bool written_ = false;  // the hardware holds the entries (exact match was available when last looked at)
  std::unique_ptr<EmtConfigReactor> emtConfigReactor_;
  std::unique_ptr<HwStatusReactor> statusIpv4Reactor_;
  std::unique_ptr<HwStatusReactor> statusIpv6Reactor_;
  std::unique_ptr<CapabilityReactor> capabilityReactor_;
  std::unique_ptr<MiscReactor> miscReactor_;
};

Calyx::Ptr<AdapterSm> adapterSmFactory(
    Calyx::Ptr<AdapterSm::FlexibleUftCapabilityStatus const> flexibleUftCapabilityStatus,
    Calyx::Ptr<AdapterSm::CalyxMiscConfig const> miscConfig, Calyx::Ptr<Emt::Config const> emtConfig,
    Calyx::Ptr<Emt::Status> emtStatus, Calyx::Ptr<AdapterSm::ExactMatchEntryStatus const> emtStatusIpv4,
    Calyx::Ptr<AdapterSm::ExactMatchEntryConfig> emtConfigIpv4,
    Calyx::Ptr<AdapterSm::ExactMatchEntryStatus const> emtStatusIpv6,
    Calyx::Ptr<AdapterSm::ExactMatchEntryConfig> emtConfigIpv6);

}  // namespace MirrorOnDrop
