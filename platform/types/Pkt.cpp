#include "platform/types/Pkt.h"

#include <algorithm>
#include <cstring>

#include "platform/types/PktManager.h"

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

Pkt::Pkt(PktManager& manager, size_t capacity, size_t headroom)
    : manager_(&manager),
      storage_(manager.bufferTake(capacity, blockSize_)),
      buffer_(storage_.get()),
      size_(capacity),
      data_(buffer_ + std::min(headroom, capacity)),
      defaultHeadroom_(std::min(headroom, capacity)) {}

Pkt::~Pkt() {
  bufferRelease();
}

void* Pkt::operator new(size_t size) {
  return PktManager::global().objectTake(size);
}

void Pkt::operator delete(void* p, size_t size) {
  PktManager::global().objectRelease(p, size);
}

std::unique_ptr<uint8_t[]> Pkt::bufferTake(size_t n, size_t& blockSize) {
  if (manager_) return manager_->bufferTake(n, blockSize);
  blockSize = 0;
  return std::unique_ptr<uint8_t[]>(new uint8_t[n]);
}

void Pkt::bufferRelease() {
  if (manager_ && storage_) manager_->bufferRelease(std::move(storage_), blockSize_);
}

void Pkt::storageIs(std::unique_ptr<uint8_t[]> block, size_t blockSize, size_t size) {
  bufferRelease();
  storage_ = std::move(block);
  blockSize_ = blockSize;
  buffer_ = storage_.get();
  size_ = size;
}

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
    size_t blockSize = 0;
    auto bigger = bufferTake(defaultHeadroom_ + n, blockSize);
    if (n != 0) std::memcpy(bigger.get() + defaultHeadroom_, p, n);
    storageIs(std::move(bigger), blockSize, defaultHeadroom_ + n);
  } else if (n != 0) {
    std::memmove(buffer_ + defaultHeadroom_, p, n);
  }
  data_ = buffer_ + defaultHeadroom_;
  dataBytes_ = n;
  checkInvariants();
}

void Pkt::reallocate(size_t newSize, size_t newHeadroom) {
  size_t blockSize = 0;
  auto bigger = bufferTake(newSize, blockSize);
  if (dataBytes_ != 0) std::memcpy(bigger.get() + newHeadroom, data_, dataBytes_);
  storageIs(std::move(bigger), blockSize, newSize);
  data_ = buffer_ + newHeadroom;
}

void Pkt::checkInvariants() const {
  CALYX_ASSERT(ptrWithinRegion(data_, buffer_, size_), "ptrWithinRegion( data_, buffer_, size_ )");
  CALYX_ASSERT(ptrWithinRegion(data_ + dataBytes_, buffer_, size_),
               "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
}

}  // namespace Calyx
