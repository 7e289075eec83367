// Encodings of very many tiny records, made quickly.
#ifndef MIVO_TESTS_SUPPORT_MANY_RECORDS_H_
#define MIVO_TESTS_SUPPORT_MANY_RECORDS_H_

#include <cstddef>
#include <cstring>
#include <string>

namespace mivo_test {

// Lists without an element, of five bytes each: what takes most room, for its bytes, once it is decoded.
inline std::string EmptyLists(std::size_t bytes) {
  std::string lists(bytes / 5 * 5, '\0');
  for (std::size_t at = 0; at < lists.size(); at += 5)
    lists[at] = '\6';
  return lists;
}

// The smallest records with a value, of six bytes each, for the beginning of an encoding.
inline std::string Bools(std::size_t bytes) {
  std::string bools(bytes / 6 * 6, '\0');
  char* const data = bools.data();
  for (std::size_t at = 0; at < bools.size(); at += 6) {
    const unsigned stamp = static_cast<unsigned>(at) + 2;
    data[at] = '\1';
    data[at + 1] = '1';
    std::memcpy(data + at + 2, &stamp, sizeof stamp);
  }
  return bools;
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_MANY_RECORDS_H_
