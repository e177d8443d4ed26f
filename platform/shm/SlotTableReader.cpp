#include "platform/shm/SlotTableReader.h"

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/shm/Seqlock.h"

namespace Calyx {

namespace {

constexpr uint32_t kUsed = static_cast<uint32_t>(SlotState::used);
constexpr uint32_t kFree = static_cast<uint32_t>(SlotState::free);
// A writer holds a slot for a few dozen nanoseconds, unless it is descheduled mid-change (which on a busy
// machine can last milliseconds) or died mid-change. Spin, then yield, then sleep, and give up after a
// second.
constexpr int kSpins = 256;
constexpr int kYields = 1024;
constexpr auto kPatience = std::chrono::seconds(1);
constexpr int kReopenAttempts = 1000;

}  // namespace

bool SlotTableReader::fail(SharedTableReadError e, std::string text) {
  error_ = e;
  errorText_ = std::move(text);
  return false;
}

bool SlotTableReader::refresh() {
  error_ = SharedTableReadError::none;
  errorText_.clear();
  if (seg_.mapped()) {
    if (!headerSound()) return false;
    if (Seqlock::load(header().retired, std::memory_order_acquire) == 0 && seg_.isFileAt(path_)) return true;
  }
  return reopen();
}

// A writer that grows quickly may retire the file just opened before we look at it: then the path already
// names a newer one, and we open again. Retired and still at the path means the writer stopped publishing.
bool SlotTableReader::reopen() {
  for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
    seg_.unmap();
    auto opened = MappedFile::open(path_, false, sizeof(SegmentHeader));
    if (!opened) {
      auto const e = opened.code() == ENOENT ? SharedTableReadError::missing : SharedTableReadError::failed;
      return fail(e, opened.error().text());
    }
    seg_ = std::move(opened).value();
    if (!seg_.mapped())
      return fail(SharedTableReadError::damaged, "file " + path_ + " of " + std::to_string(seg_.bytes()) +
                                                     " bytes is shorter than a segment header");
    if (!headerSound()) return false;
    if (Seqlock::load(header().retired, std::memory_order_acquire) == 0) return true;
    if (seg_.isFileAt(path_))
      return fail(SharedTableReadError::stale, path_ + " is retired and nothing replaced it");
  }
  return fail(SharedTableReadError::busy, path_ + " was replaced faster than it could be opened");
}

bool SlotTableReader::headerSound() {
  std::string problem;
  switch (checkSegmentHeader(header(), seg_.bytes(), traits_.keySize, traits_.valueSize, problem)) {
    case HeaderCheck::ok:
      return true;
    case HeaderCheck::incompatible:
      seg_.unmap();
      return fail(SharedTableReadError::incompatible, path_ + ": " + problem);
    case HeaderCheck::damaged:
      seg_.unmap();
      return fail(SharedTableReadError::damaged, path_ + ": " + problem);
  }
  return false;
}

bool SlotTableReader::readSlotOnce(size_t i, uint32_t& state, uint32_t& tag, void* key, void* value,
                                   bool& consistent) const {
  SegmentGeometry const g{traits_.keySize, traits_.valueSize, header().capacity};
  std::byte const* slot = seg_.base() + g.slotOffset(i);
  auto const& s = *reinterpret_cast<SlotHeader const*>(slot);
  uint64_t const begin = Seqlock::readBegin(s.version);
  if (begin & 1) return false;
  state = Seqlock::load(s.state, std::memory_order_relaxed);
  tag = Seqlock::load(s.tag, std::memory_order_relaxed);
  if (state == kUsed) {
    Seqlock::loadWords(key, slot + g.keyOffset(), traits_.keySize);
    Seqlock::loadWords(value, slot + g.valueOffset(), traits_.valueSize);
  }
  consistent = Seqlock::readValid(s.version, begin);
  return consistent;
}

bool SlotTableReader::readSlot(size_t i, uint32_t& state, void* key, void* value) {
  uint32_t tag = 0;
  return readSlot(i, state, tag, key, value);
}

bool SlotTableReader::readSlot(size_t i, uint32_t& state, uint32_t& tag, void* key, void* value) {
  std::chrono::steady_clock::time_point giveUp{};
  for (int attempt = 0;; ++attempt) {
    bool consistent = false;
    if (readSlotOnce(i, state, tag, key, value, consistent)) return slotSound(i, state, key, value);
    if (attempt < kSpins) continue;
    if (attempt < kYields) {
      ::sched_yield();
      continue;
    }
    auto const now = std::chrono::steady_clock::now();
    if (attempt == kYields) giveUp = now + kPatience;
    if (now > giveUp) break;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return fail(SharedTableReadError::busy, path_ + ": slot " + std::to_string(i) + " stayed mid-write");
}

bool SlotTableReader::find(void const* key, void* keyScratch, void* value) {
  uint64_t const capacity = header().capacity;
  uint32_t const want = traits_.keyTag(key);
  for (size_t n = 0, i = sharedTableMixHash(want) & (capacity - 1); n < capacity;
       ++n, i = (i + 1) & (capacity - 1)) {
    uint32_t state = 0;
    uint32_t tag = 0;
    if (!readSlot(i, state, tag, keyScratch, value)) return false;
    if (state == kFree) return false;
    if (state == kUsed && tag == want && traits_.keyEquals(keyScratch, key)) return true;
  }
  return false;
}

bool SlotTableReader::slotSound(size_t i, uint32_t state, void const* key, void const* value) {
  if (state >= kSlotStateLimit)
    return fail(SharedTableReadError::damaged,
                path_ + ": slot " + std::to_string(i) + " has state " + std::to_string(state));
  if (state == kUsed && !traits_.valueHasKey(value, key))
    return fail(SharedTableReadError::damaged,
                path_ + ": slot " + std::to_string(i) + " holds a value of another key");
  return true;
}

}  // namespace Calyx
