// refused: mivo: a handler takes its arguments by value or by const reference; nothing it changes travels back
#include <mivo/rpc.h>

void Offer(mivo::Server& server) {
#ifdef MENDED
  server.on("trim", [](const std::string&) {});
#else
  server.on("trim", [](std::string&) {});
#endif
}
