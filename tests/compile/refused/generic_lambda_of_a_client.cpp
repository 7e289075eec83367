// refused: mivo: a handler must name the types of its parameters; a generic or overloaded function has none
#include <mivo/rpc.h>

void Offer(mivo::Client& client) {
#ifdef MENDED
  client.on("note", [](const std::string&) {});
#else
  client.on("note", [](const auto&) {});
#endif
}
