#include "platform/types/Pkt.h"

#include <algorithm>
#include <cstring>

#include "platform/core/Assert.h"

namespace Calyx {

namespace {

// True when p lies in [base, base + size]: the end itself counts, so an empty region at the end is within.
// Compared as integers because a pointer outside the buffer may not be compared with one inside it.
bool ptrWithinRegion(uint8_t const* p, uint8_t const* base, size_t size) {
  auto at = reinterpret_cast<uintptr_t>(p);
  auto start = reinterpret_cast<uintptr_t>(base);
  return at >= start && at - start <= size;
}

}  // namespace

Pkt::Pkt(size_t capacity, size_t headroom)
    : storage_(new uint8_t[capacity]),
      buffer_(storage_.get()),
      size_(capacity),
      data_(buffer_ + std::min(headroom, capacity)),
      defaultHeadroom_(std::min(headroom, capacity)) {}

uint8_t* Pkt::headPrepend(size_t n) {
  if (n > headroom()) reallocate(defaultHeadroom_ + n + dataBytes_ + tailroom(), defaultHeadroom_ + n);
  data_ -= n;
  dataBytes_ += n;
  checkInvariants();
  return data_;
}

void Pkt::reset() {
  data_ = buffer_ + size_;
  dataBytes_ = 0;
  checkInvariants();
}

void Pkt::assign(void const* p, size_t n) {
  if (defaultHeadroom_ + n > size_) {
    // The source may lie in the old buffer, so copy before that buffer goes.
    auto bigger = std::make_unique<uint8_t[]>(defaultHeadroom_ + n);
    if (n != 0) std::memcpy(bigger.get() + defaultHeadroom_, p, n);
    storage_ = std::move(bigger);
    buffer_ = storage_.get();
    size_ = defaultHeadroom_ + n;
  } else if (n != 0) {
    std::memmove(buffer_ + defaultHeadroom_, p, n);
  }
  data_ = buffer_ + defaultHeadroom_;
  dataBytes_ = n;
  checkInvariants();
}

void Pkt::reallocate(size_t newSize, size_t newHeadroom) {
  auto bigger = std::make_unique<uint8_t[]>(newSize);
  if (dataBytes_ != 0) std::memcpy(bigger.get() + newHeadroom, data_, dataBytes_);
  storage_ = std::move(bigger);
  buffer_ = storage_.get();
  size_ = newSize;
  data_ = buffer_ + newHeadroom;
}

void Pkt::checkInvariants() const {
  CALYX_ASSERT(ptrWithinRegion(data_, buffer_, size_), "ptrWithinRegion( data_, buffer_, size_ )");
  CALYX_ASSERT(ptrWithinRegion(data_ + dataBytes_, buffer_, size_),
               "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
}

}  // namespace Calyx
