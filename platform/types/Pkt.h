#pragma once
// Pkt: one packet's bytes in a single buffer with room in front, so that headers can be stripped from the
// head as a frame is parsed (headDel) and prepended as a packet is built (headPrepend) without moving the
// payload.
//
//   buffer_                data_                 data_ + dataBytes_          buffer_ + size_
//   | ----- head room ----- | ------- data ------- | ------- tail room ------- |
//
// Invariant, checked after every change (fatal): the data lies within the buffer. Deleting more bytes than
// the packet holds is a programming fault and fails the same way ("ptrWithinRegion( data_, buffer_, size_ )":
// the head would leave the data). Prepending more than the head room never fails: a larger buffer is
// allocated (the default head room in front of the new bytes, the old data and tail room behind them) and the
// data moved into it; pointers returned earlier are then stale.
//
// A Pkt is counted (Ptr<Pkt>) and used on one thread. Packets usually come from
// PktManager::global().newPkt(), which recycles their buffers.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/core/Assert.h"
#include "platform/core/Object.h"

namespace Calyx {

class PktManager;

class Pkt : public Object {
 public:
  static constexpr size_t kDefaultCapacity = 2048;
  static constexpr size_t kDefaultHeadroom = 128;

  // A packet with no data, `headroom` bytes from the start of a `capacity`-byte buffer (head room is clamped
  // to the capacity). The head room given here is also what assign() keeps and what a grown buffer gets in
  // front.
  explicit Pkt(size_t capacity = kDefaultCapacity, size_t headroom = kDefaultHeadroom);
  // The same, with its buffers taken from and given back to manager, which must outlive the packet.
  Pkt(PktManager& manager, size_t capacity, size_t headroom);

  // Packet objects themselves are recycled through the global manager (see PktManager).
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);

  uint8_t* data() { return data_; }
  uint8_t const* data() const { return data_; }
  size_t bytes() const { return dataBytes_; }
  size_t capacity() const { return size_; }
  size_t headroom() const { return static_cast<size_t>(data_ - buffer_); }
  size_t tailroom() const { return size_ - headroom() - dataBytes_; }

  // Deletes n bytes from the head of the data; n > bytes() is fatal. Inline: a parser calls it per header.
  void headDel(size_t n) {
    // Within the data, so within the buffer: the invariants hold afterwards without a further check.
    CALYX_ASSERT(n <= dataBytes_, "ptrWithinRegion( data_, buffer_, size_ )");
    data_ += n;
    dataBytes_ -= n;
  }
  // Makes n more bytes of data in front of the current data and returns the new head. The new bytes are not
  // initialised.
  uint8_t* headPrepend(size_t n);
  // Empties the packet with its data pointer at the end of the buffer: the whole buffer becomes head room,
  // ready to be filled from the back by headPrepend().
  void reset();
  // Replaces the data with a copy of n bytes (which may lie within this packet), after the default head room.
  void assign(void const* p, size_t n);

  // When the packet was received, in seconds on the platform clock; 0 if unknown.
  double rxTimestamp() const { return rxTimestamp_; }
  void rxTimestampIs(double t) { rxTimestamp_ = t; }

 protected:
  ~Pkt() override;

 private:
  // Moves the data into a new buffer of newSize bytes, starting newHeadroom bytes in.
  void reallocate(size_t newSize, size_t newHeadroom);
  // A buffer of at least n bytes (from the manager when there is one), and the release of the current one.
  std::unique_ptr<uint8_t[]> bufferTake(size_t n, size_t& blockSize);
  void bufferRelease();
  void storageIs(std::unique_ptr<uint8_t[]> block, size_t blockSize, size_t size);
  void checkInvariants() const;

  PktManager* manager_ = nullptr;
  size_t blockSize_ = 0;  // bytes of storage_ when it came from the manager's free lists, else 0
  std::unique_ptr<uint8_t[]> storage_;
  uint8_t* buffer_ = nullptr;  // storage_.get(), kept raw so the invariants read as they are stated
  size_t size_ = 0;            // the capacity asked for; the block may be larger
  uint8_t* data_ = nullptr;
  size_t dataBytes_ = 0;
  size_t defaultHeadroom_ = 0;
  double rxTimestamp_ = 0;
};

}  // namespace Calyx
