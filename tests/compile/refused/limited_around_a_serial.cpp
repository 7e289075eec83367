// refused: mivo: limited goes with handlers for the pool
#include <mivo/rpc.h>

void Offer(mivo::Server& server, mivo::Serial& serial) {
  auto handler = serial([](int) {});
#ifdef MENDED
  server.on("note", handler);
#else
  server.on("note", mivo::limited(2, handler));
#endif
}
