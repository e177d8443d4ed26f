#include "platform/types/PktManager.h"

#include <bit>

namespace Calyx {

namespace {

// The class of an n-byte request, kClasses when it is larger than every class.
size_t classOf(size_t n) {
  if (n <= PktManager::kSmallestBlock) return 0;
  return static_cast<size_t>(std::bit_width((n - 1) / PktManager::kSmallestBlock));
}

}  // namespace

PktManager& PktManager::global() {
  static auto* const manager = new PktManager;
  return *manager;
}

Ptr<Pkt> PktManager::newPkt(size_t capacity, size_t headroom) {
  ++allocated_;
  return make<Pkt>(*this, capacity, headroom);
}

size_t PktManager::freeBuffers() const {
  size_t n = 0;
  for (auto const& list : free_) n += list.size();
  return n;
}

std::unique_ptr<uint8_t[]> PktManager::bufferTake(size_t n, size_t& blockSize) {
  size_t const c = classOf(n);
  if (!kRecycles || c >= kClasses) {
    blockSize = 0;
    return std::unique_ptr<uint8_t[]>(new uint8_t[n]);
  }
  blockSize = kSmallestBlock << c;
  auto& list = free_[c];
  if (list.empty()) return std::unique_ptr<uint8_t[]>(new uint8_t[blockSize]);
  auto block = std::move(list.back());
  list.pop_back();
  return block;
}

void PktManager::bufferRelease(std::unique_ptr<uint8_t[]> block, size_t blockSize) {
  if (blockSize == 0) return;
  auto& list = free_[classOf(blockSize)];
  if (list.size() < kFreePerClass) list.push_back(std::move(block));
}

void* PktManager::objectTake(size_t size) {
  if (size != sizeof(Pkt) || freeObjects_.empty()) return ::operator new(size);
  void* p = freeObjects_.back();
  freeObjects_.pop_back();
  return p;
}

void PktManager::objectRelease(void* p, size_t size) {
  if (!kRecycles || size != sizeof(Pkt) || freeObjects_.size() >= kFreePerClass) {
    ::operator delete(p);
    return;
  }
  freeObjects_.push_back(p);
}

}  // namespace Calyx
