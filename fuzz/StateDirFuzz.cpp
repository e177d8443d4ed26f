// Runs the real agent (mod-agent's Agent, its plug-in included) over a state directory whose files come from
// the fuzzer: the six shared tables and the ring trace. The agent replays an empty capture on the simulated
// clock with a tracker, an exporter and exact match on, so whatever it loads is used: flows an earlier run
// left are aged out and reported, exact-match entries are written and taken back, counters are kept; then it
// ends by itself and tears down. Damage must be set aside, never crash the agent; afterwards modctl's readers
// go over what is left.
//
// The input is a list of files, each "selector (1 byte), mode (1 byte), length (2 bytes, little-endian),
// bytes". The selector picks the file; the mode says how the bytes become it:
//   raw      the file is the bytes themselves;
//   slots    a sound header for the table's record sizes, then the bytes as its slots (capacity the power of
//            two that holds them), so the fuzzer's effort goes into slots rather than into finding the
//            header;
//   records  the bytes cut into records and stored by a table writer as a run of the agent would, so the
//            file is sound and only the records' own contents are arbitrary.
// The ring trace takes raw bytes, or a sound header of the agent's capacity with the bytes as its records.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/Agent.h"
#include "agent/DamagedState.h"
#include "mirror_on_drop/MirrorOnDropCollector.h"
#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropPlugin.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/entity/HwFlowTrackingStatusStore.h"
#include "platform/shm/RingTrace.h"
#include "platform/shm/SharedTableReader.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

namespace fs = std::filesystem;

struct Input {
  uint8_t const* data;
  size_t size;
  bool take(size_t n, uint8_t const*& out) {
    if (size < n) return false;
    out = data;
    data += n;
    size -= n;
    return true;
  }
};

void fileWrite(std::string const& path, void const* bytes, size_t n) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(static_cast<char const*>(bytes), std::streamsize(n));
}

// One table of the state directory, by its record types.
template <class K, class V>
struct TableFile {
  static void slots(std::string const& path, uint8_t const* bytes, size_t n) {
    SegmentGeometry g{sizeof(K), sizeof(V), 1};
    while (g.capacity * g.slotSize() < n) g.capacity *= 2;
    std::vector<std::byte> file(g.bytes());
    SegmentHeader h{};
    segmentHeaderInit(h, g, 1);
    std::memcpy(file.data(), &h, sizeof h);
    std::memcpy(file.data() + g.slotOffset(0), bytes, n);
    fileWrite(path, file.data(), file.size());
  }
  static void records(std::string const& dir, std::string const& name, uint8_t const* bytes, size_t n) {
    SharedTableOptions o;
    o.stateDir = dir;
    o.initialCapacity = 16;
    o.corruptionHandler = [](SharedTableCorruption const&) {};
    auto table = make<SharedTable<K, V>>(name, o);
    for (size_t at = 0; at + sizeof(V) <= n; at += sizeof(V)) {
      V v;
      std::memcpy(static_cast<void*>(&v), bytes + at, sizeof v);
      try {
        // A record whose own code refuses it (a stored name too long) cannot be stored by a writer either;
        // comparing the key first finds out before its hash, which may not throw, is asked for. Committed
        // rather than compared with what is stored: a value's own comparison may read a field no writer set
        // (a flag that is no boolean), which the agent checks before it compares.
        if (v.key() == v.key()) table->entryCommit(v);
      } catch (std::exception const&) {
      }
    }
  }
  static void read(std::string const& path) {
    try {
      (void)SharedTableReader<K, V>(path).snapshot();
    } catch (std::exception const&) {
    }
  }
};

using ReportEntry = TableFile<Report::Key, Report::EntryStatus>;
using ReportIntf = TableFile<Report::Interface::Key, Report::Interface::Entry>;
using EmtConfig = TableFile<Emt::Key, Emt::EntryConfig>;
using EmtStatus = TableFile<Emt::Key, Emt::EntryStatus>;
using CollectorStatus = TableFile<Collector::Key, Collector::EntryStatus>;
using TrackerStatus = TableFile<HwFlowTracking::StoredTrackerName, HwFlowTracking::StoredTrackerStatus>;

void ringWrite(std::string const& path, bool raw, uint8_t const* bytes, size_t n) {
  if (raw) return fileWrite(path, bytes, n);
  uint32_t const capacity = RingTrace::kDefaultCapacity;
  std::vector<std::byte> file(RingTraceFormat::fileSize(capacity));
  RingTraceFormat::Header h{};
  std::memcpy(h.magic, RingTraceFormat::kMagic, sizeof h.magic);
  h.version = RingTraceFormat::kVersion;
  h.recordSize = sizeof(RingTraceFormat::Record);
  h.capacity = capacity;
  h.nextSeq = 1;
  std::memcpy(file.data(), &h, sizeof h);
  std::memcpy(file.data() + sizeof h, bytes, std::min(n, file.size() - sizeof h));
  fileWrite(path, file.data(), file.size());
}

struct Harness {
  Harness() {
    char dir[] = "/dev/shm/state-dir-fuzz-XXXXXX";
    if (!mkdtemp(dir)) std::abort();
    work = dir;
    state = work + "/state";
    // An empty capture: the agent replays it, runs until every flow it loaded is stopped, and ends.
    uint32_t const header[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
    fileWrite(work + "/empty.pcap", header, sizeof header);
    config.stateDir = state;
    config.exactMatch = true;
    config.replay = work + "/empty.pcap";
    config.replayInterface = "Ethernet1";
    config.traceLevels = "*=";
    ModAgent::CollectorSetting collector{"c1", IpGenAddr::parse("127.0.0.1").value(), 9};
    ModAgent::ExporterSetting exporter{"e1", {}, {}, 0, {collector}};
    config.trackers = {ModAgent::TrackerSetting{"t1", 1000, 1000, {exporter}}};
  }
  ~Harness() {
    std::error_code ignored;
    fs::remove_all(work, ignored);
  }

  void files(Input in) {
    uint8_t const *head = nullptr, *bytes = nullptr;
    while (in.take(4, head)) {
      size_t const n = std::min<size_t>(head[2] | size_t(head[3]) << 8, in.size);
      in.take(n, bytes);
      uint8_t const mode = head[1] % 3;
      switch (head[0] % 7) {
        case 0:
          put<ReportEntry>(std::string(TableName::kReportStatus) + ".entry", mode, bytes, n);
          break;
        case 1:
          put<ReportIntf>(std::string(TableName::kReportStatus) + ".entryIntf", mode, bytes, n);
          break;
        case 2:
          put<EmtConfig>(TableName::kEmtConfig, mode, bytes, n);
          break;
        case 3:
          put<EmtStatus>(TableName::kEmtStatus, mode, bytes, n);
          break;
        case 4:
          put<CollectorStatus>(TableName::kCollectorStatus, mode, bytes, n);
          break;
        case 5:
          put<TrackerStatus>(HwFlowTracking::StatusStore::kTableName, mode, bytes, n);
          break;
        default:
          ringWrite(state + "/ring-trace", mode == 0, bytes, n);
          break;
      }
    }
  }
  template <class T>
  void put(std::string const& name, uint8_t mode, uint8_t const* bytes, size_t n) {
    if (mode == 0) return fileWrite(state + "/" + name, bytes, n);
    if (mode == 1) return T::slots(state + "/" + name, bytes, n);
    T::records(state, name, bytes, n);
  }

  // What modctl reads afterwards: every table and the ring.
  void read() const {
    ReportEntry::read(state + "/" + TableName::kReportStatus + ".entry");
    ReportIntf::read(state + "/" + TableName::kReportStatus + ".entryIntf");
    EmtConfig::read(state + "/" + TableName::kEmtConfig);
    EmtStatus::read(state + "/" + TableName::kEmtStatus);
    CollectorStatus::read(state + "/" + TableName::kCollectorStatus);
    TrackerStatus::read(state + "/" + HwFlowTracking::StatusStore::kTableName);
    (void)RingTraceReader::read(state + "/ring-trace");
  }

  std::string work;
  std::string state;
  ModAgent::AgentConfig config;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // Each run's agent opens the plug-in and closes it at the end; held open here for the whole process, it is
  // never unmapped, so the fuzzer's coverage counters inside it stay where the fuzzer registered them.
  static void* const keepPlugin =
      dlopen(ModAgent::Agent::pluginDefaultPath().c_str(), RTLD_NOW | RTLD_NODELETE);
  if (!keepPlugin) std::abort();
  static Harness harness;
  std::error_code ignored;
  fs::remove_all(harness.state, ignored);
  fs::create_directory(harness.state);
  fs::permissions(harness.state, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
  harness.files(Input{data, size});
  int status = 0;
  {
    ModAgent::Agent agent(harness.config, ModAgent::Agent::pluginDefaultPath(), nullptr);
    status = agent.run();
  }
  // The agent's state directory is its own and every table opens, sound or set aside: it starts.
  if (status != ModAgent::Agent::kExitClean) std::abort();
  harness.read();
  return 0;
}
