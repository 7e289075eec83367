// refused: mivo: a handler must name the types of its parameters; a generic or overloaded function has none
#include <mivo/rpc.h>

void Offer(mivo::Server& server, mivo::Serial& serial) {
#ifdef MENDED
  server.on("note", serial([](int) {}));
#else
  server.on("note", serial([](auto) {}));
#endif
}
