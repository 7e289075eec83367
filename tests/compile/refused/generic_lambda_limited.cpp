// refused: mivo: a handler must name the types of its parameters; a generic or overloaded function has none
#include <mivo/rpc.h>

void Offer(mivo::Server& server) {
#ifdef MENDED
  server.on("note", mivo::limited(2, [](int) {}));
#else
  server.on("note", mivo::limited(2, [](auto) {}));
#endif
}
