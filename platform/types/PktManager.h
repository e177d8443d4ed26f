#pragma once
// PktManager: where packets come from. The global manager (a process-wide singleton, as the event loop's
// current(), the trace registry and the ring trace are) lives for the whole process (it is never destroyed, so packets held by static objects may go at exit) and
// is used from the event thread only.
//
// Buffers are recycled: a packet's buffer goes back to its manager when the packet goes (or grows into a
// larger one), onto a free list per size class (256 bytes to 2 KiB, doubling), and the next packet of that
// class takes it from there; the packet objects themselves go through a free list of the global manager. So
// frames read in a burst and released after parsing cost no trip to the allocator. At most kFreePerClass
// buffers (and objects) wait per list; a larger request is a plain allocation. A packet still sees exactly
// the capacity it asked for. A manager made locally must outlive its packets. Built with AddressSanitizer,
// nothing is recycled, so that a packet or buffer used after it went is still caught.
//
// allocated() counts the packets made so far, for tests and statistics.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/core/Ptr.h"
#include "platform/types/Pkt.h"

namespace Calyx {

class PktManager {
 public:
#if defined(__SANITIZE_ADDRESS__)
  static constexpr bool kRecycles = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  static constexpr bool kRecycles = false;
#else
  static constexpr bool kRecycles = true;
#endif
#else
  static constexpr bool kRecycles = true;
#endif
  static constexpr size_t kSmallestBlock = 256;
  static constexpr size_t kClasses = 4;  // 256, 512, 1024 and 2048 bytes
  static constexpr size_t kFreePerClass = 512;

  static PktManager& global();

  PktManager() = default;
  PktManager(PktManager const&) = delete;
  PktManager& operator=(PktManager const&) = delete;

  Ptr<Pkt> newPkt(size_t capacity = Pkt::kDefaultCapacity, size_t headroom = Pkt::kDefaultHeadroom);
  uint64_t allocated() const {
    return allocated_;
  }
  // Buffers waiting to be reused, over every class.
  size_t freeBuffers() const;

 private:
  friend class Pkt;

  // A buffer of at least n bytes; blockSize is its class's size, or 0 when it is a plain allocation.
  std::unique_ptr<uint8_t[]> bufferTake(size_t n, size_t& blockSize);
  void bufferRelease(std::unique_ptr<uint8_t[]> block, size_t blockSize);
  // Memory for a Pkt object (Pkt's operator new and delete).
  void* objectTake(size_t size);
  void objectRelease(void* p, size_t size);

  uint64_t allocated_ = 0;
  std::vector<std::unique_ptr<uint8_t[]>> free_[kClasses];
  std::vector<void*> freeObjects_;  // each sizeof(Pkt) bytes
};

}  // namespace Calyx
