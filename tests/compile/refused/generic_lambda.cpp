// refused: mivo: a handler must name the types of its parameters; a generic or overloaded function has none
#include <mivo/rpc.h>

void Offer(mivo::Server& server) {
#ifdef MENDED
  server.on("add", [](int a, int b) { return a + b; });
#else
  server.on("add", [](auto a, auto b) { return a + b; });
#endif
}
