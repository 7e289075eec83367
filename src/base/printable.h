// A peer's text, fit for a line.
#ifndef MIVO_BASE_PRINTABLE_H_
#define MIVO_BASE_PRINTABLE_H_

#include <cstddef>
#include <string_view>

#include "base/standard_output.h"

namespace mivo {

// Control characters as \xNN: a terminal obeys them, and a line end would make one line look like two. Bytes above them
// stay as they are, for they may be UTF-8. Cut where a line would be cut. Allocates nothing: what is to be said may be
// that there is no memory.
//
//   print.Error("no such method: %s\n", Printable(name).c_str());
class Printable {
 public:
  explicit Printable(std::string_view text);

  const char* c_str() const { return text_; }

 private:
  char text_[kLineSize];
};

}  // namespace mivo

#endif  // MIVO_BASE_PRINTABLE_H_
