// What every codec of this benchmark carries: the same four sets of data, made once.
#ifndef MIVO_BENCH_CODEC_PAYLOADS_H_
#define MIVO_BENCH_CODEC_PAYLOADS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace codec {

// A typical call: one value of each type, and one under a key.
struct Small {
  std::int32_t number = 271828;
  bool flag = true;
  double real = 0.577215664901;
  std::string text = "a short text";
  std::string blob = std::string(64, 'b');
  std::string key = "name";
  std::string value = "echo";
};

inline const Small& TheSmall() {
  static const Small small;
  return small;
}

// 1,000 integers that need all their 32 bits, mostly: a codec with variable lengths gains nothing by them.
inline const std::vector<std::int32_t>& TheInts() {
  static const std::vector<std::int32_t> ints = [] {
    std::vector<std::int32_t> made(1000);
    std::uint32_t state = 1;
    for (std::int32_t& value : made)
      value = static_cast<std::int32_t>(state = state * 1664525 + 1013904223);
    return made;
  }();
  return ints;
}

inline const std::string& TheBlob() {
  static const std::string blob(std::size_t{1} << 20, 'x');
  return blob;
}

// 100 texts of 16 bytes under keys of 5 to 6.
inline const std::vector<std::pair<std::string, std::string>>& TheEntries() {
  static const std::vector<std::pair<std::string, std::string>> entries = [] {
    std::vector<std::pair<std::string, std::string>> made;
    for (int i = 0; i < 100; ++i)
      made.emplace_back("key_" + std::to_string(i), "value of entry " + std::to_string(i % 10));
    return made;
  }();
  return entries;
}

}  // namespace codec

#endif  // MIVO_BENCH_CODEC_PAYLOADS_H_
