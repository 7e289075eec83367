// refused: mivo: this type cannot travel. Structs need MIVO_FIELDS(Type, field, ...) in their namespace.
#include <mivo/rpc.h>

struct Size {
  int bytes;
};
#ifdef MENDED
MIVO_FIELDS(Size, bytes)
#endif

struct Job {
  std::vector<Size> sizes;
};
MIVO_FIELDS(Job, sizes)

void Submit(mivo::Client& client) {
  client.call("submit", Job());
}
