// refused: mivo: this type cannot travel. Structs need MIVO_FIELDS(Type, field, ...) in their namespace.
#include <mivo/rpc.h>

void Offer(mivo::Server& server) {
#ifdef MENDED
  server.on("names", [] { return std::map<std::string, int>(); });
#else
  server.on("names", [] { return std::map<int, std::string>(); });
#endif
}
