// The small call, as both sides of Cap'n Proto need it.
#ifndef MIVO_BENCH_PEERS_CAPNP_SMALL_H_
#define MIVO_BENCH_PEERS_CAPNP_SMALL_H_

#include <capnp/message.h>

#include <cstring>

#include "echo.capnp.h"
#include "harness/connection.h"

namespace bench {

// Messages of 256 MiB are read.
inline capnp::ReaderOptions CapnpLimits() {
  capnp::ReaderOptions limits;
  limits.traversalLimitInWords = std::uint64_t{1} << 40;
  return limits;
}

inline void FillSmall(capnproto::Small::Builder small) {
  small.setNumber(kSmallInt);
  small.setText(kSmallText);
  small.setBlob({reinterpret_cast<const kj::byte*>(SmallBlob().data()), SmallBlob().size()});
}

inline bool IsSmall(capnproto::Small::Reader small) {
  return small.getNumber() == kSmallInt && small.getText() == kSmallText &&
         small.getBlob().size() == SmallBlob().size() &&
         std::memcmp(small.getBlob().begin(), SmallBlob().data(), SmallBlob().size()) == 0;
}

inline void CopySmall(capnproto::Small::Reader from, capnproto::Small::Builder to) {
  to.setNumber(from.getNumber());
  to.setText(from.getText());
  to.setBlob(from.getBlob());
}

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_CAPNP_SMALL_H_
