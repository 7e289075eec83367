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

bool AreEqual(const char* a, const char* b, std::size_t size) {
  if (size > 16) return std::memcmp(a, b, size) == 0;
  if (size >= 8) return Word(a, 8) == Word(b, 8) && Word(a + size - 8, 8) == Word(b + size - 8, 8);
  if (size >= 4) return Word(a, 4) == Word(b, 4) && Word(a + size - 4, 4) == Word(b + size - 4, 4);
  return size == 0 || (a[0] == b[0] && a[size / 2] == b[size / 2] && a[size - 1] == b[size - 1]);
}

constexpr std::uint32_t kFree = UINT32_MAX;

}  // namespace

std::uint32_t KeyIndex::Hash(std::string_view key) {
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

bool KeyIndex::Is(const char* bytes, std::uint32_t number, std::string_view key) const {
  const Place& place = keys_[number];
  return place.length == key.size() && AreEqual(bytes + place.offset, key.data(), key.size());
}

std::uint32_t KeyIndex::FindAmongFew(const char* bytes, std::string_view key) const {
  for (std::uint32_t number = 0; number < size(); ++number) {
    if (Is(bytes, number, key)) return number;
  }
  return kAbsent;
}

std::uint32_t KeyIndex::FindInSlots(const char* bytes, std::string_view key, std::uint32_t hash) const {
  for (std::uint32_t slot = hash & mask_;; slot = (slot + 1) & mask_) {
    const std::uint32_t number = slots_[slot];
    if (number == kFree) return kAbsent;
    if (keys_[number].hash == hash && Is(bytes, number, key)) return number;
  }
}

void KeyIndex::Add(const char* bytes, std::string_view key, std::uint32_t hash) {
  const std::uint32_t number = size();
  // Room among the slots first: a key that is in one of the two only would be lost or found beyond the end.
  if (number == kFewKeys && slots_ == nullptr) {
    for (std::uint32_t earlier = 0; earlier < number; ++earlier)
      keys_[earlier].hash = Hash(Key(bytes, earlier));
    hash = Hash(key);
    Grow();
  } else if (slots_ != nullptr && 2 * (number + 1) > mask_) {
    Grow();
  }
  keys_.Add({static_cast<std::uint32_t>(key.data() - bytes), static_cast<std::uint32_t>(key.size()), hash});
  if (slots_ != nullptr) Enter(number);
}

void KeyIndex::Grow() {
  const std::uint32_t count = slots_ == nullptr ? 4 * kFewKeys : 2 * (mask_ + 1);
  slots_.reset(new std::uint32_t[count]);
  std::fill_n(slots_.get(), count, kFree);
  mask_ = count - 1;
  for (std::uint32_t number = 0; number < size(); ++number)
    Enter(number);
}

void KeyIndex::Enter(std::uint32_t number) {
  std::uint32_t slot = keys_[number].hash & mask_;
  while (slots_[slot] != kFree)
    slot = (slot + 1) & mask_;
  slots_[slot] = number;
}

}  // namespace mivo
