// refused: mivo: what is received needs an owner; take a std::string or a std::vector<std::byte>
#include <mivo/rpc.h>

bool IsNamed(mivo::Client& client) {
#ifdef MENDED
  return !client.call<std::string>("name").empty();
#else
  return !client.call<std::string_view>("name").empty();
#endif
}
