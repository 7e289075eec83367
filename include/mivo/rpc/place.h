// Where in a call's arguments or result something stands, for messages.
#ifndef MIVO_RPC_PLACE_H_
#define MIVO_RPC_PLACE_H_

#include <mivo/rpc/error.h>

#include <cstddef>
#include <string>

namespace mivo {

// One step of the way there; the steps stand on the stack of whoever reads.
struct Place {
  // What bytes of a peer may nest; types nest less deeply, unless they hold themselves.
  static constexpr int kDeepest = 100;

  explicit Place(const char* whole) : name(whole) {}
  Place(const Place& from, const char* key) : outer(&from), name(key), depth(from.depth + 1) {}
  Place(const Place& from, std::size_t number) : outer(&from), index(number), depth(from.depth + 1) {}

  // "argument 2.arguments[3]"
  std::string Text() const {
    if (outer == nullptr) return name;
    const bool is_argument = outer->outer == nullptr && name == nullptr && outer->counts_from_one;
    if (is_argument) return std::string(outer->name) + " " + std::to_string(index + 1);
    return outer->Text() + (name != nullptr ? "." + std::string(name) : "[" + std::to_string(index) + "]");
  }

  [[noreturn]] void Fail(const std::string& expected, const std::string& found) const {
    throw WrongType(Text() + ": expected " + expected + ", found " + found);
  }

  const Place* outer = nullptr;
  const char* name = nullptr;
  std::size_t index = 0;
  int depth = 0;
  bool counts_from_one = false;  // the numbers of arguments are for people
};

}  // namespace mivo

#endif  // MIVO_RPC_PLACE_H_
