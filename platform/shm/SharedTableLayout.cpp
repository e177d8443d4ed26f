#include "platform/shm/SharedTableLayout.h"

#include <atomic>

namespace Calyx {

namespace {

std::string num(uint64_t v) {
  return std::to_string(v);
}

}  // namespace

void segmentHeaderInit(SegmentHeader& h, SegmentGeometry const& g, uint64_t generation) {
  h.magic = kSharedTableMagic;
  h.layoutVersion = kSharedTableLayoutVersion;
  h.headerSize = sizeof(SegmentHeader);
  h.keySize = g.keySize;
  h.valueSize = g.valueSize;
  h.slotSize = g.slotSize();
  h.retired = 0;
  h.capacity = g.capacity;
  h.generation = generation;
}

HeaderCheck checkSegmentHeader(SegmentHeader const& h, size_t fileBytes, uint32_t keySize, uint32_t valueSize,
                               std::string& problem) {
  if (fileBytes < sizeof(SegmentHeader)) {
    problem = "file of " + num(fileBytes) + " bytes is shorter than a segment header";
    return HeaderCheck::damaged;
  }
  if (h.magic != kSharedTableMagic) {
    problem = "bad magic " + num(h.magic);
    return HeaderCheck::damaged;
  }
  if (h.layoutVersion != kSharedTableLayoutVersion) {
    problem = "layout version " + num(h.layoutVersion) + ", expected " + num(kSharedTableLayoutVersion);
    return HeaderCheck::incompatible;
  }
  if (h.keySize != keySize || h.valueSize != valueSize) {
    problem = "record sizes key " + num(h.keySize) + " value " + num(h.valueSize) + ", expected key " +
              num(keySize) + " value " + num(valueSize);
    return HeaderCheck::incompatible;
  }
  SegmentGeometry const g{keySize, valueSize, h.capacity};
  if (h.headerSize != sizeof(SegmentHeader) || h.slotSize != g.slotSize()) {
    problem = "header size " + num(h.headerSize) + " or slot size " + num(h.slotSize) +
              " does not follow from " + "the record sizes";
    return HeaderCheck::damaged;
  }
  if (h.capacity == 0 || (h.capacity & (h.capacity - 1)) != 0 || h.capacity > (uint64_t{1} << 40)) {
    problem = "capacity " + num(h.capacity) + " is not a power of two in range";
    return HeaderCheck::damaged;
  }
  if (g.bytes() != fileBytes) {
    problem =
        "file is " + num(fileBytes) + " bytes, capacity " + num(h.capacity) + " needs " + num(g.bytes());
    return HeaderCheck::damaged;
  }
  // The writer changes these while readers look: read them the way it writes them.
  uint64_t const count = std::atomic_ref(const_cast<uint64_t&>(h.count)).load(std::memory_order_acquire);
  uint64_t const deleted = std::atomic_ref(const_cast<uint64_t&>(h.deleted)).load(std::memory_order_relaxed);
  if (count > h.capacity || deleted > h.capacity - count) {
    problem = "count " + num(count) + " or deleted " + num(deleted) + " exceeds capacity " + num(h.capacity);
    return HeaderCheck::damaged;
  }
  uint32_t const retired = std::atomic_ref(const_cast<uint32_t&>(h.retired)).load(std::memory_order_relaxed);
  if (retired > 1) {
    problem = "retired flag " + num(retired) + " is neither 0 nor 1";
    return HeaderCheck::damaged;
  }
  return HeaderCheck::ok;
}

}  // namespace Calyx
