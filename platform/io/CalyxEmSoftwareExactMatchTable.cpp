#include "platform/io/CalyxEmSoftwareExactMatchTable.h"

#include <algorithm>

#include "platform/core/Trace.h"

namespace Calyx::CalyxEm {

namespace {

TraceHandle const& trace() {
  static TraceHandle const handle("Calyx-ExactMatch");
  return handle;
}

std::ostream& operator<<(std::ostream& os, ExactMatchKey const& k) {
  return os << unsigned(k.ipProto) << " " << k.srcIp << ":" << k.srcPort << " -> " << k.dstIp << ":"
            << k.dstPort;
}

template <class Queue, class Key>
bool eraseFrom(Queue& q, Key const& key) {
  auto it = std::find_if(q.begin(), q.end(), key);
  if (it == q.end()) return false;
  q.erase(it);
  return true;
}

}  // namespace

class SoftwareExactMatchTable::ConfigReactor : public ExactMatchEntryConfig::Reactor {
 public:
  ConfigReactor(SoftwareExactMatchTable& table, Ptr<ExactMatchEntryConfig const> config)
      : Reactor(std::move(config)), table_(table) {}
  void handleConfig(ExactMatchKey const& key) override { table_.handleConfig(key); }

 private:
  SoftwareExactMatchTable& table_;
};

class SoftwareExactMatchTable::TimerReactor : public Timer::Reactor {
 public:
  TimerReactor(SoftwareExactMatchTable& table, Ptr<Timer> timer) : Reactor(std::move(timer)), table_(table) {}
  void handleTimer() override { table_.installDue(); }

 private:
  SoftwareExactMatchTable& table_;
};

SoftwareExactMatchTable::SoftwareExactMatchTable(EventLoop& loop, Ptr<ExactMatchEntryConfig const> config,
                                                 Ptr<ExactMatchEntryStatus> status, uint32_t capacity,
                                                 double installDelay)
    : config_(std::move(config)),
      status_(std::move(status)),
      capacity_(capacity),
      installDelay_(installDelay),
      wheel_(make<TimerWheel>(loop, 10, 6000, false, 1024)),
      timer_(wheel_->timerNew()) {
  configReactor_ = std::make_unique<ConfigReactor>(*this, config_);
  timerReactor_ = std::make_unique<TimerReactor>(*this, timer_);
  for (auto k = config_->configFirst(); k; k = config_->configNext(*k)) handleConfig(*k);
}

SoftwareExactMatchTable::~SoftwareExactMatchTable() {
  configReactor_.reset();
  timerReactor_.reset();
  timer_->timeMinIs(kNever);
}

char const* SoftwareExactMatchTable::familyName() const {
  return config_->af() == IpGenAddr::Family::ipv6 ? "IPv6" : "IPv4";
}

void SoftwareExactMatchTable::handleConfig(ExactMatchKey const& key) {
  auto const same = [&](auto const& e) {
    if constexpr (requires { e.key; }) {
      return e.key == key;
    } else {
      return e == key;
    }
  };
  if (config_->config(key)) {
    bool const known = installed_.count(key) || std::any_of(pending_.begin(), pending_.end(), same) ||
                       std::any_of(waiting_.begin(), waiting_.end(), same);
    if (known) return;
    pending_.push_back({key, wheel_->now() + installDelay_});
    status_->statusIs(key, false);
    timerArm();
    return;
  }
  bool const freed = installed_.erase(key) > 0;
  eraseFrom(pending_, same) || eraseFrom(waiting_, same);
  status_->statusDel(key);
  CALYX_TRACE(trace(), 5, familyName() << " exact-match entry removed: " << key << ".");
  if (freed && !waiting_.empty()) {
    ExactMatchKey const next = waiting_.front();
    waiting_.pop_front();
    install(next);
  }
}

void SoftwareExactMatchTable::installDue() {
  double const now = wheel_->now();
  while (!pending_.empty() && pending_.front().due <= now) {
    ExactMatchKey const key = pending_.front().key;
    pending_.pop_front();
    if (installed_.size() < capacity_) {
      install(key);
    } else {
      waiting_.push_back(key);
      CALYX_TRACE(trace(), 3,
                  familyName() << " exact-match table is full (" << installed_.size() << " of " << capacity_
                               << " entries installed): " << key << " waits for room.");
    }
  }
  timerArm();
}

void SoftwareExactMatchTable::install(ExactMatchKey const& key) {
  installed_.insert(key);
  status_->statusIs(key, true);
  CALYX_TRACE(trace(), 5, familyName() << " exact-match entry installed: " << key << ".");
}

void SoftwareExactMatchTable::timerArm() {
  if (pending_.empty()) {
    timer_->timeMinIs(kNever);
  } else if (timer_->timeMin() != pending_.front().due) {
    timer_->timeMinIs(pending_.front().due);
  }
}

}  // namespace Calyx::CalyxEm
