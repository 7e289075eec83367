// refused: mivo: what is received needs an owner; take a std::string or a std::vector<std::byte>
#include <mivo/rpc.h>

void Offer(mivo::Server& server) {
#ifdef MENDED
  server.on("note", [](const std::string&) {});
#else
  server.on("note", [](std::string_view) {});
#endif
}
