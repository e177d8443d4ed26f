// The shared-table reader (what modctl and the metrics use on the agent's tables) over a table file that an
// earlier writer left and something then damaged. The input's first byte says how many records a writer
// stores (its top bit: the file is replaced by the rest of the input as raw bytes instead); the rest, in
// patch mode, is a list of (offset: 2 bytes little-endian, byte) written over the file. Then:
// - the reader takes a snapshot and looks every record of it up again: no crash, no endless retry; a refusal
//   says why, and a look-up never answers with another key's record (damage may hide a record from the
//   look-up that the slot walk still shows: a key rewritten in place sits where its hash does not lead);
// - a writer opens the same file as a restarting agent would: damage goes to its corruption handler and the
//   table starts empty, never a crash; what it loads it can look up.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/shm/SharedTable.h"
#include "platform/shm/SharedTableReader.h"

using namespace Calyx;

namespace {

struct Record {
  uint64_t id;
  uint64_t value;
  uint64_t key() const { return id; }
  bool operator==(Record const&) const = default;
};

constexpr char const* kName = "table";

std::string const& stateDir() {
  static std::string const dir = [] {
    std::string d =
        std::filesystem::temp_directory_path() / ("shared-table-fuzz-" + std::to_string(getpid()));
    std::filesystem::create_directories(d);
    return d;
  }();
  return dir;
}

SharedTableOptions options(bool& damaged) {
  SharedTableOptions o;
  o.stateDir = stateDir();
  o.initialCapacity = 16;
  o.corruptionHandler = [&damaged](SharedTableCorruption const&) { damaged = true; };
  return o;
}

void patch(std::string const& path, uint8_t const* data, size_t size) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekg(0, std::ios::end);
  auto const length = static_cast<size_t>(f.tellg());
  for (size_t at = 0; at + 3 <= size && length > 0; at += 3) {
    size_t const offset = (data[at] | size_t(data[at + 1]) << 8) % length;
    f.seekp(std::streamoff(offset));
    f.put(static_cast<char>(data[at + 2]));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size == 0) return 0;
  std::string const path = sharedTablePath(stateDir(), kName);
  std::filesystem::remove(path);
  bool const raw = data[0] & 0x80;
  size_t const records = data[0] & 0x7f;
  bool damaged = false;
  if (raw) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<char const*>(data + 1), std::streamsize(size - 1));
  } else {
    {
      auto writer = make<SharedTable<uint64_t, Record>>(kName, options(damaged));
      for (uint64_t i = 0; i < records; ++i) writer->entryIs(Record{i * 7919, i});
    }
    patch(path, data + 1, size - 1);
  }

  SharedTableReader<uint64_t, Record> reader(path);
  std::vector<Record> const seen = reader.snapshot();
  if (!reader.ok() && reader.errorText().empty()) std::abort();
  for (auto const& r : seen) {
    auto const found = reader.find(r.key());
    if (found && found->key() != r.key()) std::abort();
  }

  auto writer = make<SharedTable<uint64_t, Record>>(kName, options(damaged));
  size_t loaded = 0;
  writer->forEachEntryUnordered([&](Record const& r) {
    ++loaded;
    if (!writer->entry(r.key())) std::abort();
  });
  if (loaded != writer->entryCount()) std::abort();
  return 0;
}
