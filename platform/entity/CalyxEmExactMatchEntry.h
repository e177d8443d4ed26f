#pragma once
// CalyxEm: the chip's exact-match tables, one per address family, as the state store shows them.
//
// ExactMatchEntryConfig holds the entries wanted: each matches one flow (protocol, addresses, ports) arriving
// on any interface of its set. ExactMatchEntryStatus holds what the hardware did with each: installed or not
// (an entry the table has no room for stays uninstalled until room frees up). A feature writes the
// configuration and reads the status; the hardware (on this host, SoftwareExactMatchTable) does the opposite.
// Reactors hear handleConfig(key) / handleStatus(key) for every entry that appeared, changed or went away.

#include <compare>
#include <cstdint>
#include <set>

#include "platform/core/Attribute.h"
#include "platform/types/Hash.h"
#include "platform/types/IntfId.h"
#include "platform/types/IpGenAddr.h"

namespace Calyx::CalyxEm {

// What one entry matches: a flow.
struct ExactMatchKey {
  uint8_t ipProto = 0;
  IpGenAddr srcIp;
  IpGenAddr dstIp;
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;
  friend auto operator<=>(ExactMatchKey const&, ExactMatchKey const&) = default;
  uint32_t hash() const {
    IncrementalHash h;
    uint32_t const addresses[2] = {srcIp.hash(), dstIp.hash()};
    uint16_t const ports[2] = {srcPort, dstPort};
    h.add8(ipProto);
    h.add(addresses, sizeof addresses);
    h.add(ports, sizeof ports);
    return h.value();
  }
};

// On which ingress interfaces the flow is matched.
struct ExactMatchAction {
  std::set<IntfId> intfSet;
  friend bool operator==(ExactMatchAction const&, ExactMatchAction const&) = default;
};

class ExactMatchEntryConfig : public Object, public Notifier<ExactMatchEntryConfig> {
 public:
  class Reactor : public ReactorBase<ExactMatchEntryConfig> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleConfig(ExactMatchKey const& /*key*/) {}
  };

  explicit ExactMatchEntryConfig(IpGenAddr::Family af) : af_(af) {}
  IpGenAddr::Family af() const { return af_; }

  std::optional<ExactMatchAction> config(ExactMatchKey const& key) const { return config_.get(key); }
  void configIs(ExactMatchKey const& key, ExactMatchAction const& action) { config_.is(*this, key, action); }
  CALYX_COLLECTION_ACCESSORS(config, ExactMatchKey);

 private:
  IpGenAddr::Family af_;
  Collection<ExactMatchEntryConfig, ExactMatchKey, ExactMatchAction> config_{&Reactor::handleConfig};

 protected:
  ~ExactMatchEntryConfig() override = default;
};

class ExactMatchEntryStatus : public Object, public Notifier<ExactMatchEntryStatus> {
 public:
  class Reactor : public ReactorBase<ExactMatchEntryStatus> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleStatus(ExactMatchKey const& /*key*/) {}
  };

  explicit ExactMatchEntryStatus(IpGenAddr::Family af) : af_(af) {}
  IpGenAddr::Family af() const { return af_; }

  // True when the entry is installed; nullopt when the hardware does not know the entry.
  std::optional<bool> status(ExactMatchKey const& key) const { return status_.get(key); }
  void statusIs(ExactMatchKey const& key, bool installed) { status_.is(*this, key, installed); }
  CALYX_COLLECTION_ACCESSORS(status, ExactMatchKey);

 private:
  IpGenAddr::Family af_;
  Collection<ExactMatchEntryStatus, ExactMatchKey, bool> status_{&Reactor::handleStatus};

 protected:
  ~ExactMatchEntryStatus() override = default;
};

}  // namespace Calyx::CalyxEm

template <>
struct std::hash<Calyx::CalyxEm::ExactMatchKey> {
  size_t operator()(Calyx::CalyxEm::ExactMatchKey const& k) const noexcept { return k.hash(); }
};
