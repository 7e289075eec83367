#include "values/key_index.h"

#include <sys/random.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace mivo {
namespace {

struct Seed {
  Seed() {
    if (getrandom(words, sizeof words, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof words)) return;
    // So early after the machine's start that there is no randomness yet: what nobody elsewhere can tell either.
    words[0] = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    words[1] = reinterpret_cast<std::uintptr_t>(this) * 0x9E3779B97F4A7C15u;
  }
  std::uint64_t words[2] = {};
};

std::uint64_t Mix(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t Word(const char* bytes, std::size_t size) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, size);
  return word;
}

std::uint32_t Hash(std::string_view key) {
  static const Seed seed;
  std::uint64_t hash = seed.words[0] ^ key.size();
  const char* bytes = key.data();
  std::size_t left = key.size();
  for (; left > 8; left -= 8, bytes += 8)
    hash = Mix(hash ^ Word(bytes, 8), seed.words[1]);
  std::uint64_t rest = 0;
  if (left == 8) {
    rest = Word(bytes, 8);
  } else if (left >= 4) {
    rest = Word(bytes, 4) | Word(bytes + left - 4, 4) << 32;
  } else {
    for (std::size_t i = 0; i < left; ++i)
      rest = rest << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return static_cast<std::uint32_t>(Mix(hash ^ rest, seed.words[1]));
}

constexpr std::uint32_t kFree = UINT32_MAX;

}  // namespace

std::uint32_t KeyIndex::Find(const char* bytes, std::string_view key) const {
  if (slots_ == nullptr) {
    for (std::uint32_t number = 0; number < size(); ++number) {
      if (Key(bytes, number) == key) return number;
    }
    return kAbsent;
  }
  for (std::uint32_t slot = Hash(key) & mask_;; slot = (slot + 1) & mask_) {
    const std::uint32_t number = slots_[slot];
    if (number == kFree) return kAbsent;
    if (Key(bytes, number) == key) return number;
  }
}

void KeyIndex::Add(const char* bytes, std::string_view key) {
  const std::uint32_t number = size();
  if (number == 0) keys_.reserve(kFewKeys);
  // Room in both before the key is in either.
  if (number >= kFewKeys && (slots_ == nullptr || 2 * (number + 1) > mask_)) Grow(bytes);
  keys_.push_back({static_cast<std::uint32_t>(key.data() - bytes), static_cast<std::uint32_t>(key.size())});
  if (slots_ != nullptr) Enter(number, key);
}

void KeyIndex::Grow(const char* bytes) {
  const std::uint32_t count = slots_ == nullptr ? 4 * kFewKeys : 4 * (mask_ + 1);
  slots_.reset(new std::uint32_t[count]);
  std::fill_n(slots_.get(), count, kFree);
  mask_ = count - 1;
  for (std::uint32_t number = 0; number < size(); ++number)
    Enter(number, Key(bytes, number));
}

void KeyIndex::Enter(std::uint32_t number, std::string_view key) {
  std::uint32_t slot = Hash(key) & mask_;
  while (slots_[slot] != kFree)
    slot = (slot + 1) & mask_;
  slots_[slot] = number;
}

}  // namespace mivo
