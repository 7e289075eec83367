// Large buffers that somebody has done with, kept for a moment for the next one who needs their like.
//
// The kernel takes longer to hand out fresh pages than it takes to fill them: a megabyte that goes through five fresh
// buffers spends most of its time there.
//
// What is kept is bounded in number and bytes, and let go of when none of it was used for a second.
// Under a checker of memory nothing is kept, for it would not see who uses what is gone. Any thread.
#ifndef MIVO_BASE_SPARE_MEMORY_H_
#define MIVO_BASE_SPARE_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

namespace mivo {

// Smaller ones the allocator keeps by itself.
inline constexpr std::size_t kLeastSpare = 32768;

// An empty string with room for `size` bytes, of spare memory if there is some; without any for a small size.
std::string TakeSpareString(std::size_t size);
// Keeps the memory of a string that is not needed any more, if it is worth it.
void KeepSpareString(std::string string) noexcept;
inline void GiveSpareString(std::string&& string) noexcept {
  if (string.capacity() >= kLeastSpare) KeepSpareString(std::move(string));
}

// Memory from malloc.
struct Block {
  Block() = default;
  Block(char* first, std::size_t count) : bytes(first), size(count) {}
  Block(Block&& other) noexcept : bytes(std::exchange(other.bytes, nullptr)), size(std::exchange(other.size, 0)) {}
  Block& operator=(Block&& other) noexcept {
    std::swap(bytes, other.bytes);
    std::swap(size, other.size);
    return *this;
  }
  ~Block() { std::free(bytes); }

  std::size_t capacity() const { return size; }

  char* bytes = nullptr;
  std::size_t size = 0;
};

// One of at least `size` bytes, or an empty one if there is none.
Block TakeSpareBlock(std::size_t size);
void KeepSpareBlock(Block block) noexcept;
inline void GiveSpareBlock(Block&& block) noexcept {
  if (block.capacity() >= kLeastSpare) KeepSpareBlock(std::move(block));
}

bool HasSpareMemory();
// Lets go of all of it if nothing of it was used in the last second. To be called now and then.
void AgeSpareMemory(std::int64_t now_ns) noexcept;

}  // namespace mivo

#endif  // MIVO_BASE_SPARE_MEMORY_H_
