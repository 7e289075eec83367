#include "harness/connection.h"

namespace bench {

const std::string& SmallBlob() {
  static const std::string blob(64, 'b');
  return blob;
}

void Require(bool condition, const char* what) {
  if (!condition) throw Wrong(what);
}

}  // namespace bench
