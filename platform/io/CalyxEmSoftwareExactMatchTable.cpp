#include "platform/io/CalyxEmSoftwareExactMatchTable.h"


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
  auto it = entries_.find(key);
  if (config_->config(key)) {
    if (it != entries_.end()) return;
    uint64_t const ticket = nextTicket_++;
    entries_.emplace(key, Entry{State::pending, ticket});
    pending_.push_back({key, ticket, wheel_->now() + installDelay_});
    ++pendingCount_;
    status_->statusIs(key, false);
    timerArm();
    return;
  }
  bool freed = false;
  if (it != entries_.end()) {
    switch (it->second.state) {
      case State::pending:
        --pendingCount_;
        break;
      case State::waiting:
        --waitingCount_;
        break;
      case State::installed:
        --installedCount_;
        freed = true;
        break;
    }
    entries_.erase(it);
  }
  status_->statusDel(key);
  CALYX_TRACE(trace(), 5, familyName() << " exact-match entry removed: " << key << ".");
  if (!freed) {
    compact(pending_, State::pending, pendingCount_);
    compact(waiting_, State::waiting, waitingCount_);
    return;
  }
  if (Queued const* next = front(waiting_, State::waiting)) {
    ExactMatchKey const nextKey = next->key;
    waiting_.pop_front();
    --waitingCount_;
    install(nextKey, entries_.at(nextKey));
  }
}

void SoftwareExactMatchTable::installDue() {
  double const now = wheel_->now();
  for (Queued const* q; (q = front(pending_, State::pending)) && q->due <= now;) {
    ExactMatchKey const key = q->key;
    pending_.pop_front();
    --pendingCount_;
    Entry& entry = entries_.at(key);
    if (installedCount_ < capacity_) {
      install(key, entry);
    } else {
      entry = {State::waiting, nextTicket_++};
      waiting_.push_back({key, entry.ticket, 0});
      ++waitingCount_;
      CALYX_TRACE(trace(), 3,
                  familyName() << " exact-match table is full (" << installedCount_ << " of " << capacity_
                               << " entries installed): " << key << " waits for room.");
    }
  }
  timerArm();
}

void SoftwareExactMatchTable::install(ExactMatchKey const& key, Entry& entry) {
  entry.state = State::installed;
  ++installedCount_;
  status_->statusIs(key, true);
  CALYX_TRACE(trace(), 5, familyName() << " exact-match entry installed: " << key << ".");
}

bool SoftwareExactMatchTable::isLive(Queued const& q, State state) const {
  auto it = entries_.find(q.key);
  return it != entries_.end() && it->second.state == state && it->second.ticket == q.ticket;
}

SoftwareExactMatchTable::Queued const* SoftwareExactMatchTable::front(std::deque<Queued>& queue, State state) {
  while (!queue.empty() && !isLive(queue.front(), state)) queue.pop_front();
  return queue.empty() ? nullptr : &queue.front();
}

// Entries removed while queued leave stale keys behind; once they outnumber the live ones the queue is rebuilt,
// so its length stays within a constant factor of what it holds.
void SoftwareExactMatchTable::compact(std::deque<Queued>& queue, State state, size_t live) {
  if (queue.size() <= 2 * live + 64) return;
  std::deque<Queued> kept;
  for (Queued const& q : queue) {
    if (isLive(q, state)) kept.push_back(q);
  }
  queue.swap(kept);
}

void SoftwareExactMatchTable::timerArm() {
  Queued const* next = front(pending_, State::pending);
  if (!next) {
    timer_->timeMinIs(kNever);
  } else if (timer_->timeMin() != next->due) {
    timer_->timeMinIs(next->due);
  }
}

}  // namespace Calyx::CalyxEm
