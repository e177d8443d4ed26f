#include "platform/shm/SlotTable.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <unordered_set>
#include <utility>

#include "platform/shm/Seqlock.h"

namespace Calyx {

namespace {

size_t roundCapacity(size_t n) {
  size_t c = 16;
  while (c < n) c *= 2;
  return c;
}

// The home slot comes from the tag mixed, so a rehash places every key again from its tag alone.
size_t homeOf(uint32_t tag, size_t mask) {
  return sharedTableMixHash(tag) & mask;
}

std::string num(uint64_t v) {
  return std::to_string(v);
}

}  // namespace

SlotTable::SlotTable(std::string name, SharedTableOptions options, SlotRecordTraits const& traits)
    : name_(std::move(name)),
      options_(std::move(options)),
      traits_(traits),
      path_(sharedTablePath(options_.stateDir, name_)),
      tmpPath_(sharedTablePath(options_.stateDir, "." + name_ + ".new")),
      initialCapacity_(roundCapacity(options_.initialCapacity)),
      valueOffset_(geometry(0).valueOffset()),
      slotSize_(geometry(0).slotSize()) {
  lastMiss_.key.resize(traits_.keySize);
  published_ = canPublish();
  open();
}

// The capacity a rehash holding n entries picks: at most half full afterwards.
size_t SlotTable::capacityFor(size_t n) const {
  return std::max(initialCapacity_, roundCapacity(2 * n));
}

void SlotTable::corrupt(std::string problem, bool atOpen) const {
  SharedTableCorruption const c{name_, path_, std::move(problem), atOpen};
  if (options_.corruptionHandler) {
    options_.corruptionHandler(c);
  } else {
    sharedTableCorruptionReport(c);
  }
}

void SlotTable::trace(std::string const& line) const {
  sharedTableTrace(name_, line);
}

bool SlotTable::reportHeader() const {
  SegmentHeader const& h = header();
  std::string problem;
  if (checkSegmentHeader(h, seg_.bytes(), traits_.keySize, traits_.valueSize, problem) != HeaderCheck::ok) {
    corrupt(problem);
  } else if (h.retired == 1 && h.capacity == capacity_) {
    corrupt("another writer opened the table's file and retired this segment (one writer per table)");
  } else {
    corrupt("header changed under its writer (capacity " + num(h.capacity) + ", retired " + num(h.retired) +
            ")");
  }
  return false;
}

bool SlotTable::checkSlot(size_t i) const {
  std::string problem;
  if (traits_.valueSound(valueAt(i), problem)) return true;
  corrupt("slot " + num(i) + " holds a broken record: " + problem);
  return false;
}

bool SlotTable::probe(void const* key, uint32_t tag, Probe& out) const {
  size_t const mask = capacity_ - 1;
  size_t firstDeleted = kNone;
  size_t i = homeOf(tag, mask);
  for (size_t n = 0; n < capacity_; ++n, i = (i + 1) & mask) {
    auto const& s = *reinterpret_cast<SlotHeader const*>(slotAt(i));
    if (s.state == kUsed) {
      if (s.tag == tag && traits_.keyEquals(keyAt(i), key)) {
        out = {i, true};
        return true;
      }
    } else if (s.state == kFree) {
      out = {firstDeleted != kNone ? firstDeleted : i, false};
      return true;
    } else if (s.state == kDeleted) {
      if (firstDeleted == kNone) firstDeleted = i;
    } else {
      corrupt("slot " + num(i) + " has state " + num(s.state));
      return false;
    }
  }
  out = {firstDeleted, false};
  return true;
}

bool SlotTable::locate(void const* key, uint32_t& tag, Probe& out) {
  Miss& m = lastMiss_;
  if (m.valid && m.commit == commitSequence_ && m.generation == generation_ &&
      traits_.keyEquals(m.key.data(), key)) {
    m.valid = false;
    tag = m.tag;
    out = m.probe;
    return true;
  }
  tag = traits_.keyTag(key);
  return probe(key, tag, out);
}

void SlotTable::rememberMiss(void const* key, uint32_t tag, Probe const& p) const {
  Miss& m = lastMiss_;
  std::memcpy(m.key.data(), key, traits_.keySize);
  m.tag = tag;
  m.probe = p;
  m.commit = commitSequence_;
  m.generation = generation_;
  m.valid = true;
}

size_t SlotTable::nextUsed(size_t from) const {
  for (size_t n = 0; n < capacity_; ++n) {
    size_t const i = (from + n) & (capacity_ - 1);
    uint32_t const state = stateAt(i);
    if (state == kUsed) return i;
    if (state >= kSlotStateLimit) {
      corrupt("slot " + num(i) + " has state " + num(state));
      return kNone;
    }
  }
  return kNone;
}

bool SlotTable::insert(void const* key, uint32_t tag, void const* value, Probe p) {
  bool const intoFree = p.index == kNone || stateAt(p.index) == kFree;
  if (intoFree) {
    uint64_t const generation = generation_;
    if (!roomFor(1)) return false;
    // Growing moved every key: find this one's place again.
    if (generation_ != generation && !probe(key, tag, p)) return false;
  }
  if (stateAt(p.index) == kDeleted) --deleted_;
  writeSlot(p.index, tag, key, value);
  ++used_;
  return true;
}

void SlotTable::writeSlot(size_t i, uint32_t tag, void const* key, void const* value) {
  auto& s = *reinterpret_cast<SlotHeader*>(slotAt(i));
  uint64_t const odd = Seqlock::beginWrite(s.version);
  Seqlock::store(s.tag, tag, std::memory_order_relaxed);
  Seqlock::storeWords(keyAt(i), key, traits_.keySize);
  Seqlock::storeWords(valueAt(i), value, traits_.valueSize);
  Seqlock::store(s.state, kUsed, std::memory_order_relaxed);
  Seqlock::endWrite(s.version, odd);
}

void SlotTable::writeValue(size_t i, void const* value) {
  auto& s = *reinterpret_cast<SlotHeader*>(slotAt(i));
  uint64_t const odd = Seqlock::beginWrite(s.version);
  Seqlock::storeWords(valueAt(i), value, traits_.valueSize);
  Seqlock::endWrite(s.version, odd);
}

void SlotTable::writeState(size_t i, uint32_t state) {
  auto& s = *reinterpret_cast<SlotHeader*>(slotAt(i));
  uint64_t const odd = Seqlock::beginWrite(s.version);
  Seqlock::store(s.state, state, std::memory_order_relaxed);
  Seqlock::endWrite(s.version, odd);
}

void SlotTable::removeAt(size_t i) {
  size_t const mask = capacity_ - 1;
  bool const endsChain = stateAt((i + 1) & mask) == kFree;
  writeState(i, endsChain ? kFree : kDeleted);
  --used_;
  if (!endsChain) {
    ++deleted_;
  } else {
    // No chain runs past a free slot, so the deleted slots just before it no longer carry one.
    size_t j = (i - 1) & mask;
    for (size_t n = 0; n < capacity_ && stateAt(j) == kDeleted; ++n, j = (j - 1) & mask) {
      writeState(j, kFree);
      --deleted_;
    }
  }
  bool const sparse = capacity_ > initialCapacity_ && used_ * 8 < capacity_;
  if (sparse || deleted_ * 2 > capacity_) rehashPaced(capacityFor(used_));
  publishCounts();
}

void SlotTable::publishCounts() {
  SegmentHeader& h = header();
  Seqlock::store(h.count, static_cast<uint64_t>(used_), std::memory_order_relaxed);
  Seqlock::store(h.deleted, static_cast<uint64_t>(deleted_), std::memory_order_relaxed);
  Seqlock::store(h.commitSequence, ++commitSequence_, std::memory_order_release);
}

bool SlotTable::canPublish() const {
  if (name_.empty() || name_.front() == '.' || name_.find('/') != std::string::npos) {
    trace("the name is not a file name; the table is kept in private memory");
    return false;
  }
  if (options_.stateDir.empty()) {
    trace("no state directory; the table is kept in private memory");
    return false;
  }
  auto const made = MappedFile::makeDirectory(options_.stateDir);
  if (made) return true;
  trace(made.error().text() + "; the table is kept in private memory");
  return false;
}

// A new segment file under the temporary name, or private memory when the table is not published. Unmapped,
// after a trace line, when neither can be had.
MappedFile SlotTable::makeSegment(uint64_t capacity, uint64_t generation) {
  SegmentGeometry const g = geometry(capacity);
  auto made = published_ ? MappedFile::create(tmpPath_, g.bytes()) : MappedFile::createPrivate(g.bytes());
  if (!made) {
    SysError const& e = made.error();
    trace(published_ ? e.text()
                     : "cannot map private memory for a table: " + std::string(std::strerror(e.code)));
    return {};
  }
  segmentHeaderInit(*reinterpret_cast<SegmentHeader*>(made.value().base()), g, generation);
  return std::move(made).value();
}

// A rehash, tried at most once a second after one failed for want of memory, so that a full tmpfs costs one
// failed attempt a second rather than one per new key.
bool SlotTable::rehashPaced(size_t capacity) {
  auto const now = std::chrono::steady_clock::now();
  if (rehashFailedAt_ && now - *rehashFailedAt_ < std::chrono::seconds(1)) return false;
  if (rehash(capacity)) {
    rehashFailedAt_.reset();
    return true;
  }
  rehashFailedAt_ = now;
  trace("cannot make a segment of " + num(capacity) + " slots; the table stays at " + num(capacity_) +
        " slots and refuses new keys past three quarters of them");
  return false;
}

// Makes fresh the table's segment. Its file stays under the temporary name until publish().
MappedFile SlotTable::adopt(MappedFile fresh) {
  MappedFile previous = std::exchange(seg_, std::move(fresh));
  slots_ = seg_.base() + sizeof(SegmentHeader);
  capacity_ = header().capacity;
  generation_ = header().generation;
  return previous;
}

// Renames the table's segment over its path, then marks previous (when it is a sound file that readers may
// have mapped) retired, so that a reader who sees the mark and re-opens the path finds the new segment.
void SlotTable::publish(MappedFile previous) {
  if (seg_.isFile()) {
    if (auto const replaced = MappedFile::replaceFile(tmpPath_, path_); !replaced) {
      trace(replaced.error().text() + "; the table goes on in private memory");
      published_ = false;
    }
  }
  if (previous.mapped() && previous.isFile()) {
    auto& h = *reinterpret_cast<SegmentHeader*>(previous.base());
    Seqlock::store(h.retired, uint32_t{1}, std::memory_order_release);
  }
}

// Moves every entry into a new segment of the given capacity, dropping deleted slots; false, with the table
// unchanged, when no segment of that size can be had.
bool SlotTable::rehash(size_t capacity) {
  MappedFile fresh = makeSegment(capacity, generation_ + 1);
  if (!fresh.mapped()) return false;
  std::byte* const to = fresh.base() + sizeof(SegmentHeader);
  size_t const mask = capacity - 1;
  for (size_t i = 0; i < capacity_; ++i) {
    if (stateAt(i) != kUsed) continue;
    uint32_t const tag = reinterpret_cast<SlotHeader const*>(slotAt(i))->tag;
    size_t j = homeOf(tag, mask);
    while (reinterpret_cast<SlotHeader*>(to + j * slotSize_)->state != kFree) j = (j + 1) & mask;
    // Nobody sees the new segment yet: plain copies will do.
    std::memcpy(to + j * slotSize_ + sizeof(SlotHeader), keyAt(i), slotSize_ - sizeof(SlotHeader));
    auto* s = reinterpret_cast<SlotHeader*>(to + j * slotSize_);
    s->tag = tag;
    s->state = kUsed;
  }
  deleted_ = 0;
  auto& h = *reinterpret_cast<SegmentHeader*>(fresh.base());
  h.count = used_;
  h.commitSequence = commitSequence_;
  publish(adopt(std::move(fresh)));
  return true;
}

// The records of an earlier run are kept between loading and placing as the bytes of their slots from the key
// on (key and value, each padded to 8), one after another.
void SlotTable::open() {
  MappedFile previous;
  std::vector<uint64_t> loaded;
  uint64_t generation = 0;
  if (published_) loadPrevious(previous, loaded, generation);
  size_t const recordWords = (slotSize_ - sizeof(SlotHeader)) / 8;
  size_t const count = loaded.size() / recordWords;
  MappedFile fresh = makeSegment(capacityFor(count), generation + 1);
  if (!fresh.mapped() && published_) {
    // No room for the file (a full tmpfs): the table works in private memory, and readers see none.
    trace("the table goes on in private memory");
    published_ = false;
    fresh = makeSegment(capacityFor(count), generation + 1);
  }
  if (!fresh.mapped()) throw std::bad_alloc();
  adopt(std::move(fresh));
  uint32_t const valueWordOffset = (valueOffset_ - sizeof(SlotHeader)) / 8;
  for (size_t r = 0; r < count; ++r) {
    uint64_t const* record = loaded.data() + r * recordWords;
    uint32_t const tag = traits_.keyTag(record);
    Probe p;
    probe(record, tag, p);
    writeSlot(p.index, tag, record, record + valueWordOffset);
    ++used_;
  }
  publishCounts();
  publish(std::move(previous));
}

// Maps the file an earlier writer left and copies out its entries. On damage or another layout it leaves
// previous unmapped and loaded empty, so the table starts afresh.
void SlotTable::loadPrevious(MappedFile& previous, std::vector<uint64_t>& loaded, uint64_t& generation) {
  auto opened = MappedFile::open(path_, true, sizeof(SegmentHeader));
  if (!opened) {
    if (opened.code() != ENOENT) trace(opened.error().text() + "; starting afresh");
    return;
  }
  previous = std::move(opened).value();
  std::string problem;
  if (!previous.mapped()) {
    corrupt("file " + path_ + " of " + num(previous.bytes()) + " bytes is shorter than a segment header",
            true);
    trace("starting afresh");
    return;
  }
  auto const& h = *reinterpret_cast<SegmentHeader const*>(previous.base());
  HeaderCheck const check =
      checkSegmentHeader(h, previous.bytes(), traits_.keySize, traits_.valueSize, problem);
  if (check == HeaderCheck::incompatible)
    trace(path_ + " has another layout: " + problem + "; starting afresh");
  if (check == HeaderCheck::damaged) corrupt(problem, true);
  if (check == HeaderCheck::ok && loadSlots(previous, loaded, problem)) {
    generation = h.generation;
    return;
  }
  if (check == HeaderCheck::ok) corrupt(problem, true);
  if (check != HeaderCheck::incompatible) trace("starting afresh");
  loaded.clear();
  previous.unmap();
}

// False with problem set when a slot is damaged. A slot left half-written by a writer that died is dropped.
// The records' own code (comparison, hash, sound) may throw on bytes no writer produced: that is damage too.
bool SlotTable::loadSlots(MappedFile const& previous, std::vector<uint64_t>& loaded,
                          std::string& problem) const {
  size_t i = 0;
  try {
    return loadSlotsFrom(previous, loaded, problem, i);
  } catch (std::exception const& e) {
    problem = "slot " + num(i) + " holds a record that cannot be read: " + e.what();
    return false;
  }
}

bool SlotTable::loadSlotsFrom(MappedFile const& previous, std::vector<uint64_t>& loaded, std::string& problem,
                              size_t& i) const {
  auto const& h = *reinterpret_cast<SegmentHeader const*>(previous.base());
  std::byte const* const slots = previous.base() + sizeof(SegmentHeader);
  size_t const recordWords = (slotSize_ - sizeof(SlotHeader)) / 8;
  size_t const valueWordOffset = (valueOffset_ - sizeof(SlotHeader)) / 8;
  auto const keyOf = [&](size_t r) { return loaded.data() + r * recordWords; };
  // Keys already loaded, by their record's index in loaded.
  auto const hash = [&](size_t r) { return size_t{traits_.keyTag(keyOf(r))}; };
  auto const equal = [&](size_t a, size_t b) { return traits_.keyEquals(keyOf(a), keyOf(b)); };
  std::unordered_set<size_t, decltype(hash), decltype(equal)> seen(16, hash, equal);
  for (i = 0; i < h.capacity; ++i) {
    std::byte const* slot = slots + i * slotSize_;
    auto const& s = *reinterpret_cast<SlotHeader const*>(slot);
    if (s.state >= kSlotStateLimit) {
      problem = "slot " + num(i) + " has state " + num(s.state);
      return false;
    }
    if (s.state != kUsed) continue;
    if (s.version & 1) {
      trace("slot " + num(i) + " was being written when its writer stopped; its entry is dropped");
      continue;
    }
    size_t const r = loaded.size() / recordWords;
    loaded.resize(loaded.size() + recordWords);
    std::memcpy(keyOf(r), slot + sizeof(SlotHeader), recordWords * 8);
    uint64_t const* value = keyOf(r) + valueWordOffset;
    if (!traits_.valueHasKey(value, keyOf(r))) {
      problem = "slot " + num(i) + " holds a value of another key";
      return false;
    }
    if (std::string broken; traits_.valueSound && !traits_.valueSound(value, broken)) {
      problem = "slot " + num(i) + " holds a broken record: " + broken;
      return false;
    }
    if (!seen.insert(r).second) {
      problem = "slot " + num(i) + " holds a key already seen in another slot";
      return false;
    }
  }
  return true;
}

}  // namespace Calyx
