#pragma once
// Interface::SimpleEthDevPamManager: opens a Pam for every interface on which packet access is desired and
// publishes it in EthDevPamCollection; closes and withdraws it when the desire goes.
//
// It reacts to PamDesiredIntfDir, but never opens or closes inside that notification: the interfaces that
// changed are remembered and a task of the manager's ("PamManager:sync") brings the collection in line on the
// next loop turn. So a reader that withdraws its wish from inside a handler never sees its module die under
// it.
//
// The backend of each interface is chosen by a PamBackend: live capture by default (of the kernel device
// named like the interface, or as given), pcap file replay (e.g. "replay FILE as interface et1"), or an
// in-memory queue. It comes from, in this order: a backend set on the manager for the interface, the
// interface's status in the host's AllIntfStatusDir (when the manager is given one), the default. An
// interface whose status says it is down is not opened. The settings (socket filter program, read limit, bulk
// read, retry interval) are read when a module is opened: set them before enabling. Changing the backend of
// an open interface reopens it. Nothing is opened until enabledIs(true); disabling withdraws and closes every
// module, as does destroying the manager.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "platform/core/EventLoop.h"
#include "platform/core/Task.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/InterfaceAllIntfStatusDir.h"
#include "platform/entity/InterfaceEthDevPamCollection.h"
#include "platform/entity/InterfacePamDesiredIntfDir.h"
#include "platform/entity/Pam.h"

namespace Calyx::Interface {

class SimpleEthDevPamManager : public Object {
 public:
  SimpleEthDevPamManager(EventLoop& loop, Ptr<PamDesiredIntfDir> desired, Ptr<EthDevPamCollection> collection,
                         Ptr<AllIntfStatusDir const> intfStatus = nullptr);

  // The wishes the manager follows, writable: the manager hands it to the readers that ask for interfaces.
  Ptr<PamDesiredIntfDir> const& pamDesiredIntfDir() const { return desired_; }
  Ptr<EthDevPamCollection> const& pamCollection() const { return collection_; }

  // Settings for the modules opened from now on.
  std::string const& socketFilter() const { return socketFilter_; }
  void socketFilterIs(std::string filter) { socketFilter_ = std::move(filter); }
  uint32_t readLimit() const { return readLimit_; }
  void readLimitIs(uint32_t limit) { readLimit_ = limit == 0 ? 1 : limit; }
  bool bulkRead() const { return bulkRead_; }
  void bulkReadIs(bool bulk) { bulkRead_ = bulk; }
  double retryInterval() const { return retryInterval_; }
  void retryIntervalIs(double seconds) { retryInterval_ = seconds; }

  bool enabled() const { return enabled_; }
  void enabledIs(bool enabled);

  // The backend of an interface: its own if set, else the default.
  PamBackend backend(IntfId const& intfId) const;
  void backendIs(IntfId const& intfId, PamBackend backend);
  void backendDel(IntfId const& intfId);
  PamBackend const& defaultBackend() const { return defaultBackend_; }
  void defaultBackendIs(PamBackend backend);

  // The module opened for an interface (null when none), writable: tests feed an in-memory one through it.
  Ptr<Pam> pam(IntfId const& intfId) const;
  size_t pamCount() const { return opened_.size(); }

 protected:
  ~SimpleEthDevPamManager() override;

 private:
  class DesiredReactor;
  class IntfStatusReactor;
  class SyncReactor;
  struct Opened {
    PamBackend backend;
    Ptr<Pam> pam;
  };

  // False only when the host's status says the interface is down.
  bool intfUp(IntfId const& intfId) const;
  void changed(IntfId const& intfId);
  void changedAll();
  void sync();
  void syncIntf(IntfId const& intfId);
  Ptr<Pam> pamNew(IntfId const& intfId, PamBackend const& backend);
  void close(IntfId intfId);  // by value: callers pass keys of the map it erases from

  EventLoop* loop_;
  Ptr<PamDesiredIntfDir> desired_;
  Ptr<EthDevPamCollection> collection_;
  Ptr<AllIntfStatusDir const> intfStatus_;
  Ptr<TimerWheel> wheel_;
  Ptr<Task> syncTask_;
  std::unique_ptr<DesiredReactor> desiredReactor_;
  std::unique_ptr<IntfStatusReactor> intfStatusReactor_;
  std::unique_ptr<SyncReactor> syncReactor_;

  std::string socketFilter_;  // pcap filter syntax, given by the reader of the modules; empty: every frame
  uint32_t readLimit_ = Pam::kDefaultReadLimit;
  bool bulkRead_ = true;
  double retryInterval_ = Pam::kDefaultRetryInterval;
  bool enabled_ = false;
  PamBackend defaultBackend_;
  std::map<IntfId, PamBackend> backends_;

  std::map<IntfId, Opened> opened_;
  std::set<IntfId> changed_;  // interfaces to bring in line on the next sync
};

}  // namespace Calyx::Interface
