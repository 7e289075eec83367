// Stream sockets by their descriptors.
#ifndef MIVO_TRANSPORT_SOCKET_H_
#define MIVO_TRANSPORT_SOCKET_H_

#include "transport/endpoint.h"

namespace mivo {

// A socket that is neither bound nor connected; below 0 the negative errno. It does not block, and programs that this
// one starts do not inherit it.
//
// Over TCP it is set up for calls, and so is each connection that it accepts: a small message does not wait for an
// acknowledgement of the one before, and a peer that has vanished without a word is noticed after a minute and a half.
int OpenSocket(Endpoint::Kind kind);

}  // namespace mivo

#endif  // MIVO_TRANSPORT_SOCKET_H_
