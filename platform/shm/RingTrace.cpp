#include "platform/shm/RingTrace.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace Calyx {

namespace {

using RingTraceFormat::Header;
using RingTraceFormat::Record;

// The header's nextSeq and each record's commit, seq, time and length are shared with readers in other
// processes; they are accessed as atomics in place. The text is copied plainly and trusted only if the commit
// marker read before and after the copy is the same (the reader's half of a sequence lock).
uint64_t sharedLoad(uint64_t const& field, std::memory_order order) {
  return std::atomic_ref<uint64_t>(const_cast<uint64_t&>(field)).load(order);
}

void sharedStore(uint64_t& field, uint64_t value, std::memory_order order) {
  std::atomic_ref<uint64_t>(field).store(value, order);
}

Header& headerOf(std::byte* base) {
  return *reinterpret_cast<Header*>(base);
}
Header const& headerOf(std::byte const* base) {
  return *reinterpret_cast<Header const*>(base);
}
Record* recordsOf(std::byte* base) {
  return reinterpret_cast<Record*>(base + sizeof(Header));
}
Record const* recordsOf(std::byte const* base) {
  return reinterpret_cast<Record const*>(base + sizeof(Header));
}

// "<what> <path>: <errno text>." in the ring trace's own words.
std::string failureText(std::string const& what, SysError const& e) {
  return what + ": " + std::strerror(e.code) + ".";
}

uint64_t realtimeNs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// Empty when the header describes a ring of exactly fileSize bytes; otherwise what is wrong with it.
std::string headerProblem(Header const& header, size_t fileSize) {
  if (std::memcmp(header.magic, RingTraceFormat::kMagic, sizeof header.magic) != 0) {
    return "is not a ring trace file (bad magic)";
  }
  if (header.version != RingTraceFormat::kVersion) {
    return "has layout version " + std::to_string(header.version) + ", expected " +
           std::to_string(RingTraceFormat::kVersion);
  }
  if (header.recordSize != sizeof(Record)) {
    return "has record size " + std::to_string(header.recordSize) + ", expected " +
           std::to_string(sizeof(Record));
  }
  if (header.capacity == 0 || header.capacity > RingTraceFormat::kCapacityMax) {
    return "has a bad capacity " + std::to_string(header.capacity);
  }
  if (fileSize != RingTraceFormat::fileSize(header.capacity)) {
    return "holds " + std::to_string(fileSize) + " bytes, but capacity " + std::to_string(header.capacity) +
           " needs " + std::to_string(RingTraceFormat::fileSize(header.capacity));
  }
  if (sharedLoad(header.nextSeq, std::memory_order_relaxed) == 0) return "has next sequence 0";
  return {};
}

void headerInit(std::byte* base, uint32_t capacity) {
  Header& header = headerOf(base);
  header.version = RingTraceFormat::kVersion;
  header.recordSize = sizeof(Record);
  header.capacity = capacity;
  sharedStore(header.nextSeq, 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(header.magic, RingTraceFormat::kMagic, sizeof header.magic);
}

// Reads one record as a sequence-lock reader; nullopt if it is empty, torn, or not where its sequence
// belongs.
std::optional<RingTraceRecord> recordRead(Record const& record, uint64_t index, uint32_t capacity) {
  uint64_t const before = sharedLoad(record.commit, std::memory_order_acquire);
  if (before == 0) return std::nullopt;
  uint64_t const seq = sharedLoad(record.seq, std::memory_order_relaxed);
  uint64_t const timeNs = sharedLoad(record.timeNs, std::memory_order_relaxed);
  uint32_t const length =
      std::atomic_ref<uint32_t>(const_cast<uint32_t&>(record.length)).load(std::memory_order_relaxed);
  if (length > RingTraceFormat::kTextMax) return std::nullopt;
  std::string text(record.text, length);
  std::atomic_thread_fence(std::memory_order_acquire);
  uint64_t const after = sharedLoad(record.commit, std::memory_order_relaxed);
  if (after != before || seq != before || (seq - 1) % capacity != index) return std::nullopt;
  return RingTraceRecord{seq, timeNs, std::move(text)};
}

// Every whole record, oldest first, as one consistent run. The header's next sequence number is read before
// (first) and after (last) the pass over the records: a record numbered below `first` was complete before the
// pass began (one writer, in order), and one numbered at least `last - capacity` was not yet overwritten when
// it ended. Records in that window are kept; a record outside it may have been read in the middle of a lap
// and would leave a gap. A writer fast enough to shrink the window to nothing gets a few more tries.
std::vector<RingTraceRecord> ringSnapshot(std::byte const* base) {
  Header const& header = headerOf(base);
  uint32_t const capacity = header.capacity;
  Record const* records = recordsOf(base);
  std::vector<RingTraceRecord> result;
  for (int attempt = 0; attempt < 4; ++attempt) {
    result.clear();
    uint64_t const first = sharedLoad(header.nextSeq, std::memory_order_acquire);
    for (uint32_t index = 0; index < capacity; ++index) {
      if (auto record = recordRead(records[index], index, capacity)) result.push_back(std::move(*record));
    }
    uint64_t const last = sharedLoad(header.nextSeq, std::memory_order_acquire);
    uint64_t const oldest = last > capacity ? last - capacity : 1;
    std::erase_if(result, [&](auto const& record) { return record.seq < oldest || record.seq >= first; });
    if (last - first < capacity) break;
  }
  std::sort(result.begin(), result.end(), [](auto const& a, auto const& b) { return a.seq < b.seq; });
  return result;
}

MappedFile mapAnonymous(uint32_t capacity) {
  auto made = MappedFile::createPrivate(RingTraceFormat::fileSize(capacity));
  if (!made) return {};
  headerInit(made.value().base(), capacity);
  return std::move(made).value();
}

// An open or map that failed, for the file at path, in the words of a writer (re)opening its ring.
std::string openFailure(std::string const& path, SysError const& e) {
  if (std::strcmp(e.call, "fstat") == 0) return failureText("Cannot read the size of ring trace " + path, e);
  if (std::strcmp(e.call, "mmap") == 0) return failureText("Cannot map ring trace " + path, e);
  return failureText("Cannot open ring trace " + path, e);
}

// Maps an existing ring of the same layout and capacity. Unmapped with an empty problem: there is nothing
// worth keeping, make a fresh file. Unmapped with a problem: leave the file alone and fail.
MappedFile mapExisting(std::string const& path, uint32_t capacity, std::string& problem) {
  auto opened = MappedFile::open(path, true, sizeof(Header));
  if (!opened) {
    if (opened.code() != ENOENT) problem = openFailure(path, opened.error());
    return {};
  }
  MappedFile file = std::move(opened).value();
  if (file.bytes() == 0) return {};
  if (!file.mapped() || std::memcmp(headerOf(file.base()).magic, RingTraceFormat::kMagic, 8) != 0) {
    problem = path + " is not a ring trace file (bad magic); leaving it alone.";
    return {};
  }
  Header const& header = headerOf(file.base());
  if (!headerProblem(header, file.bytes()).empty() || header.capacity != capacity) return {};
  return file;
}

// Makes the file beside its final name and renames it into place, so a reader never maps a half-made ring and
// a reader still holding the old file keeps a valid mapping.
MappedFile mapFresh(std::string const& path, uint32_t capacity, std::string& problem) {
  std::string const staging = path + ".new";
  auto made = MappedFile::create(staging, RingTraceFormat::fileSize(capacity));
  if (!made) {
    SysError const& e = made.error();
    if (std::strcmp(e.call, "open") == 0) {
      problem = failureText("Cannot create ring trace " + staging, e);
    } else if (std::strcmp(e.call, "mmap") == 0) {
      problem = failureText("Cannot map ring trace " + staging, e);
    } else {
      problem = failureText("Cannot size ring trace " + staging, e);
    }
    return {};
  }
  MappedFile file = std::move(made).value();
  headerInit(file.base(), capacity);
  if (auto const renamed = MappedFile::replaceFile(staging, path); !renamed) {
    problem = failureText("Cannot rename " + staging + " to " + path, renamed.error());
    return {};
  }
  return file;
}

}  // namespace

RingTrace::~RingTrace() = default;

RingTrace& RingTrace::instance() {
  static auto* const ring = new RingTrace;
  return *ring;
}

bool RingTrace::open(std::string const& path, uint32_t capacity) {
  std::lock_guard lock(mutex_);
  error_.clear();
  if (capacity == 0 || capacity > RingTraceFormat::kCapacityMax) {
    error_ = "Bad ring trace capacity " + std::to_string(capacity) + " for " + path + ": it must be 1 to " +
             std::to_string(RingTraceFormat::kCapacityMax) + ".";
    return false;
  }
  MappedFile file = mapExisting(path, capacity, error_);
  if (!file.mapped() && error_.empty()) file = mapFresh(path, capacity, error_);
  if (!file.mapped()) return false;
  // Records made in memory before the file existed (start-up) go into the file; a previous file keeps its
  // own.
  std::vector<RingTraceRecord> carried;
  if (mapping_.mapped() && path_.empty()) carried = ringSnapshot(mapping_.base());
  mapping_ = std::move(file);
  path_ = path;
  for (auto const& record : carried) recordAt(record.timeNs, record.text);
  return true;
}

void RingTrace::record(std::string_view text) {
  std::lock_guard lock(mutex_);
  if (!mapping_.mapped()) {
    // Recording must never fail loudly: with no memory for the ring the event is simply not kept.
    mapping_ = mapAnonymous(kDefaultCapacity);
    if (!mapping_.mapped()) return;
  }
  recordAt(realtimeNs(), text);
}

std::vector<RingTraceRecord> RingTrace::records() const {
  std::lock_guard lock(mutex_);
  if (!mapping_.mapped()) return {};
  return ringSnapshot(mapping_.base());
}

void RingTrace::recordAt(uint64_t timeNs, std::string_view text) {
  Header& header = headerOf(mapping_.base());
  // The sequence number is taken before the record is touched, so a writer restarted after a crash never
  // reuses the number of a record its predecessor may have left half-written.
  uint64_t const seq = sharedLoad(header.nextSeq, std::memory_order_relaxed);
  sharedStore(header.nextSeq, seq + 1, std::memory_order_relaxed);
  Record& record = recordsOf(mapping_.base())[(seq - 1) % header.capacity];
  sharedStore(record.commit, 0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  auto const length = static_cast<uint32_t>(std::min(text.size(), RingTraceFormat::kTextMax));
  sharedStore(record.seq, seq, std::memory_order_relaxed);
  sharedStore(record.timeNs, timeNs, std::memory_order_relaxed);
  std::atomic_ref<uint32_t>(record.length).store(length, std::memory_order_relaxed);
  std::memcpy(record.text, text.data(), length);
  sharedStore(record.commit, seq, std::memory_order_release);
}

std::optional<std::vector<RingTraceRecord>> RingTraceReader::read(std::string const& path,
                                                                  std::string* error) {
  auto fail = [&](std::string const& why) -> std::optional<std::vector<RingTraceRecord>> {
    if (error) *error = why;
    return std::nullopt;
  };
  auto opened = MappedFile::open(path, false, sizeof(Header));
  if (!opened) {
    SysError const& e = opened.error();
    if (std::strcmp(e.call, "fstat") == 0) return fail(failureText("Cannot read the size of " + path, e));
    if (std::strcmp(e.call, "mmap") == 0) return fail(failureText("Cannot map ring trace " + path, e));
    return fail(failureText("Cannot open ring trace " + path, e));
  }
  MappedFile const file = std::move(opened).value();
  if (!file.mapped()) {
    return fail(path + " is not a ring trace file: " + std::to_string(file.bytes()) +
                " bytes is shorter than its header.");
  }
  std::string const problem =
      headerProblem(headerOf(static_cast<std::byte const*>(file.base())), file.bytes());
  if (!problem.empty()) return fail(path + " " + problem + ".");
  return ringSnapshot(file.base());
}

}  // namespace Calyx
