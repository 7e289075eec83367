// Bytes that grow without being cleared first.
#ifndef MIVO_BASE_BYTE_BUFFER_H_
#define MIVO_BASE_BYTE_BUFFER_H_

#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "base/spare_memory.h"

namespace mivo {

// std::string writes zeros before the bytes are read that replace them, and copies where the allocator could move
// pages. For a message of megabytes both cost more than the reading.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  ~ByteBuffer() { GiveSpareBlock({bytes_, capacity_}); }
  ByteBuffer(ByteBuffer&& other) noexcept
      : bytes_(std::exchange(other.bytes_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  ByteBuffer(const ByteBuffer&) = delete;
  ByteBuffer& operator=(const ByteBuffer&) = delete;

  std::string_view view() const { return {bytes_, size_}; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::size_t capacity() const { return capacity_; }

  // Exactly as much; throws std::bad_alloc, and then nothing has changed.
  void Reserve(std::size_t capacity) {
    if (capacity <= capacity_ || TakeSpare(capacity)) return;
    void* const moved = std::realloc(bytes_, capacity);
    if (moved == nullptr) throw std::bad_alloc();
    bytes_ = static_cast<char*>(moved);
    capacity_ = capacity;
  }

  // False if there is no spare memory of about that much.
  bool TakeSpare(std::size_t capacity) {
    Block spare = TakeSpareBlock(capacity);
    if (spare.bytes == nullptr) return false;
    if (size_ > 0) std::memcpy(spare.bytes, bytes_, size_);
    GiveSpareBlock({std::exchange(bytes_, std::exchange(spare.bytes, nullptr)), std::exchange(capacity_, spare.size)});
    return true;
  }

  void Append(std::string_view bytes) {
    if (bytes.empty()) return;
    if (capacity_ - size_ < bytes.size()) Reserve(size_ + (bytes.size() < size_ ? size_ : bytes.size()));
    assert(bytes_ != nullptr);
    std::memcpy(bytes_ + size_, bytes.data(), bytes.size());
    size_ += bytes.size();
  }

  // What lies behind the bytes, up to the capacity, and counting what was written there among them.
  char* end() { return bytes_ + size_; }
  void Grow(std::size_t count) { size_ += count; }

  void RemoveFront(std::size_t count) {
    if (count == 0) return;
    size_ -= count;
    std::memmove(bytes_, bytes_ + count, size_);
  }

  // Gives memory back that is not needed.
  void Shrink() {
    if (size_ == 0) {
      GiveSpareBlock({std::exchange(bytes_, nullptr), std::exchange(capacity_, 0)});
    } else if (void* const moved = std::realloc(bytes_, size_)) {
      bytes_ = static_cast<char*>(moved);
      capacity_ = size_;
    }
  }

 private:
  char* bytes_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace mivo

#endif  // MIVO_BASE_BYTE_BUFFER_H_
