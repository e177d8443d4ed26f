#include "agent/CaptureMonitor.h"

#include <sstream>

#include "platform/io/LivePam.h"

namespace ModAgent {

using Calyx::IntfId;
using Calyx::LivePam;
using Calyx::Ptr;

class CaptureMonitor::CollectionReactor final : public Calyx::Interface::EthDevPamCollection::Reactor {
 public:
  CollectionReactor(Ptr<Calyx::Interface::EthDevPamCollection const> c, CaptureMonitor& owner)
      : Reactor(std::move(c)), owner_(owner) {}
  void handleIntfPam(IntfId const& intf) override { owner_.pamChanged(intf); }

 private:
  CaptureMonitor& owner_;
};

CaptureMonitor::CaptureMonitor(Ptr<Calyx::Interface::EthDevPamCollection const> collection)
    : collection_(std::move(collection)), reactor_(std::make_unique<CollectionReactor>(collection_, *this)) {}

CaptureMonitor::~CaptureMonitor() = default;

void CaptureMonitor::interfacesIs(std::vector<std::string> const& names) {
  interfaces_ = names;
}

// A module withdrawn (or replaced) leaves its counts behind; the monitor holds no module longer than the
// collection does, so a closed capture is really closed.
void CaptureMonitor::pamChanged(IntfId const& intf) {
  Ptr<Calyx::Pam const> const now = collection_->intfPam(intf);
  auto it = current_.find(intf);
  if (it != current_.end() && it->second != now) {
    Totals& t = withdrawn_[intf];
    t.frames += it->second->rxPktsTotal();
    t.lastState = "up";
    t.lastReason.clear();
    if (auto const* live = dynamic_cast<LivePam const*>(it->second.get())) {
      t.kernelDrops += live->kernelDrops();
      t.lastState = LivePam::stateText(live->state());
      if (live->state() != LivePam::State::up) t.lastReason = live->lastError();
    }
    current_.erase(it);
  }
  if (now) current_[intf] = now;
}

CaptureHealth CaptureMonitor::health(std::string const& name) const {
  IntfId const intf(name);
  CaptureHealth h{name, {}, "off", {}, 0, 0};
  if (auto w = withdrawn_.find(intf); w != withdrawn_.end()) {
    h.frames = w->second.frames;
    h.kernelDrops = w->second.kernelDrops;
  }
  auto it = current_.find(intf);
  if (it == current_.end()) return h;
  h.frames += it->second->rxPktsTotal();
  h.state = "up";
  if (auto const* live = dynamic_cast<LivePam const*>(it->second.get())) {
    h.device = live->device();
    h.kernelDrops += live->kernelDrops();
    h.state = LivePam::stateText(live->state());
    if (live->state() != LivePam::State::up) h.reason = live->lastError();
  }
  return h;
}

std::vector<CaptureHealth> CaptureMonitor::captures() const {
  std::vector<CaptureHealth> out;
  for (auto const& name : interfaces_) out.push_back(health(name));
  return out;
}

std::vector<std::string> CaptureMonitor::problems() const {
  std::vector<std::string> out;
  for (auto const& h : captures()) {
    if (h.state == "failed") {
      out.push_back("capture on " + h.interface + " failed: " + h.reason +
                    " (not retried; fix it, then reload)");
    } else if (h.state == "retrying") {
      out.push_back("capture on " + h.interface + " is retrying: " + h.reason);
    }
  }
  return out;
}

void CaptureMonitor::failedRetry() {
  for (auto const& [intf, pam] : current_) {
    auto const* live = dynamic_cast<LivePam const*>(pam.get());
    if (live && live->state() == LivePam::State::failed) const_cast<LivePam*>(live)->open();
  }
}

nlohmann::json CaptureMonitor::json() const {
  nlohmann::json out = nlohmann::json::array();
  for (auto const& h : captures()) {
    out.push_back({{"interface", h.interface},
                   {"device", h.device},
                   {"state", h.state},
                   {"reason", h.reason},
                   {"frames", h.frames},
                   {"kernel_drops", h.kernelDrops}});
  }
  return out;
}

std::string CaptureMonitor::summary() const {
  std::ostringstream os;
  for (auto h : captures()) {
    if (auto w = withdrawn_.find(IntfId(h.interface)); h.state == "off" && w != withdrawn_.end()) {
      h.state = w->second.lastState;
      h.reason = w->second.lastReason;
    }
    os << (os.tellp() > 0 ? "; " : "") << h.interface << " frames " << h.frames << ", kernel drops "
       << h.kernelDrops;
    if (h.state == "failed" || h.state == "retrying") os << " (" << h.state << ": " << h.reason << ")";
  }
  return os.str();
}

}  // namespace ModAgent
