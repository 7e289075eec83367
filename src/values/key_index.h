// The keys of a decoded set, in the order of their first appearance. They stay in the set's bytes, which every
// operation is given; the index holds where.
//
// Keys are the peer's choice. Whoever could foresee where they fall in the table could make every look-up walk it all:
// the hash depends on a number that this process has drawn.
#ifndef MIVO_SRC_VALUES_KEY_INDEX_H_
#define MIVO_SRC_VALUES_KEY_INDEX_H_

#include <cstdint>
#include <memory>
#include <string_view>

#include "values/small_array.h"

namespace mivo {

class KeyIndex {
 public:
  static constexpr std::uint32_t kAbsent = UINT32_MAX;

  std::uint32_t size() const { return keys_.size(); }
  std::string_view Key(const char* bytes, std::uint32_t number) const {
    return std::string_view(bytes + keys_[number].offset, keys_[number].length);
  }
  // The key's number, or kAbsent.
  std::uint32_t Find(const char* bytes, std::string_view key) const {
    return slots_ == nullptr ? FindAmongFew(bytes, key) : FindInSlots(bytes, key, Hash(key));
  }
  // The same while keys are added; Add needs what it puts into `hash`.
  std::uint32_t Find(const char* bytes, std::string_view key, std::uint32_t& hash) const {
    if (slots_ == nullptr) return FindAmongFew(bytes, key);
    hash = Hash(key);
    return FindInSlots(bytes, key, hash);
  }
  // `key` is part of the bytes, and absent.
  void Add(const char* bytes, std::string_view key, std::uint32_t hash);

 private:
  struct Place {
    std::uint32_t offset;
    std::uint32_t length;
    std::uint32_t hash;  // once there are slots
  };

  // Few keys are compared one after another.
  static constexpr std::uint32_t kFewKeys = 8;

  static std::uint32_t Hash(std::string_view key);
  bool Is(const char* bytes, std::uint32_t number, std::string_view key) const;
  std::uint32_t FindAmongFew(const char* bytes, std::string_view key) const;
  std::uint32_t FindInSlots(const char* bytes, std::string_view key, std::uint32_t hash) const;
  void Grow();
  void Enter(std::uint32_t number);

  SmallArray<Place, kFewKeys> keys_;
  // Numbers of keys, each at the place its hash names or at the next free one behind; at most half of it is filled.
  std::unique_ptr<std::uint32_t[]> slots_;
  std::uint32_t mask_ = 0;  // how many slots there are, less 1
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_KEY_INDEX_H_
