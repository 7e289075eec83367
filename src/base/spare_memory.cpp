#include "base/spare_memory.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <new>

#include "base/checked_memory.h"
#include "base/clock.h"
#include "base/hold_across_fork.h"
#include "base/mutex.h"

namespace mivo {

namespace {

constexpr std::size_t kMostItems = 8;
constexpr std::size_t kMostBytes = std::size_t{96} << 20;

Mutex mutex;
[[maybe_unused]] const int held_across_fork = HoldAcrossFork<mutex>();
std::atomic<std::size_t> items{0};
std::atomic<std::int64_t> last_used_ns{0};
constexpr std::int64_t kUnusedNs = 1'000'000'000;

// The bytes of one message are now a value, now a set, now a frame, each a little longer: they fit all of these.
constexpr std::size_t Rounded(std::size_t size) {
  constexpr std::size_t kSlack = 4096;
  constexpr std::size_t kStep = 65536;
  return size > kMostBytes ? size : (size + kSlack + kStep - 1) / kStep * kStep;
}

// Of one type of buffer, in the order in which they were given.
template <class Buffer>
class Shelf {
 public:
  Buffer Take(std::size_t size) MIVO_REQUIRES(mutex) {
    std::size_t best = count_;
    for (std::size_t i = 0; i < count_; ++i) {
      const std::size_t capacity = kept_[i].capacity();
      // One that is far too large might stay with something small for long.
      if (capacity < size || capacity > 2 * size + kLeastSpare) continue;
      if (best == count_ || capacity < kept_[best].capacity()) best = i;
    }
    return best == count_ ? Buffer() : Remove(best);
  }

  // Returns what has to go for it.
  std::array<Buffer, kMostItems> Give(Buffer buffer) MIVO_REQUIRES(mutex) {
    std::array<Buffer, kMostItems> dropped;
    std::size_t number = 0;
    while (count_ == kMostItems || (count_ > 0 && bytes_ + buffer.capacity() > kMostBytes))
      dropped[number++] = Remove(0);
    bytes_ += buffer.capacity();
    kept_[count_++] = std::move(buffer);
    ++items;
    return dropped;
  }

  std::array<Buffer, kMostItems> GiveUp() MIVO_REQUIRES(mutex) {
    std::array<Buffer, kMostItems> dropped;
    for (std::size_t i = 0; i < count_; ++i)
      dropped[i] = std::move(kept_[i]);
    items -= std::exchange(count_, 0);
    bytes_ = 0;
    return dropped;
  }

 private:
  Buffer Remove(std::size_t index) MIVO_REQUIRES(mutex) {
    Buffer removed = std::move(kept_[index]);
    bytes_ -= removed.capacity();
    --count_;
    for (std::size_t i = index; i < count_; ++i)
      kept_[i] = std::move(kept_[i + 1]);
    --items;
    return removed;
  }

  std::array<Buffer, kMostItems> kept_;
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

// Never destroyed: threads of the library may outlive main.
template <class Buffer>
Shelf<Buffer>& ShelfOf() {
  alignas(Shelf<Buffer>) static std::byte memory[sizeof(Shelf<Buffer>)];
  static auto* const shelf = new (memory) Shelf<Buffer>;
  return *shelf;
}

// Not while another thread forks: a child would wait for ever for whoever was making it.
[[maybe_unused]] const bool made_at_load = (ShelfOf<std::string>(), ShelfOf<Block>(), true);

template <class Buffer>
Buffer Take(std::size_t size) {
  if (size < kLeastSpare || items.load(std::memory_order_relaxed) == 0) return Buffer();
  auto& shelf = ShelfOf<Buffer>();
  last_used_ns.store(NowNs(), std::memory_order_relaxed);
  MutexLock lock(mutex);
  return shelf.Take(size);
}

template <class Buffer>
void Give(Buffer buffer) {
  if (kMemoryIsChecked || buffer.capacity() < kLeastSpare || buffer.capacity() > kMostBytes / 3) return;
  auto& shelf = ShelfOf<Buffer>();
  last_used_ns.store(NowNs(), std::memory_order_relaxed);
  const auto dropped = [&] {
    MutexLock lock(mutex);
    return shelf.Give(std::move(buffer));
  }();
}

template <class Buffer>
void GiveUp() {
  auto& shelf = ShelfOf<Buffer>();
  const auto dropped = [&] {
    MutexLock lock(mutex);
    return shelf.GiveUp();
  }();
}

}  // namespace

std::string TakeSpareString(std::size_t size) {
  std::string string = Take<std::string>(size);
  if (size >= kLeastSpare && string.capacity() < size) string.reserve(Rounded(size));
  return string;
}

void KeepSpareString(std::string string) noexcept {
  string.clear();
  Give(std::move(string));
}

Block TakeSpareBlock(std::size_t size) {
  return Take<Block>(size);
}

void KeepSpareBlock(Block block) noexcept {
  Give(std::move(block));
}

bool HasSpareMemory() {
  return items.load(std::memory_order_relaxed) != 0;
}

void AgeSpareMemory(std::int64_t now_ns) noexcept {
  if (!HasSpareMemory() || now_ns - last_used_ns.load(std::memory_order_relaxed) < kUnusedNs) return;
  GiveUp<std::string>();
  GiveUp<Block>();
}

}  // namespace mivo
