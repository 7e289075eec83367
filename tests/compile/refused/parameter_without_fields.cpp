// refused: mivo: this type cannot travel. Structs need MIVO_FIELDS(Type, field, ...) in their namespace.
#include <mivo/rpc.h>

struct Job {
  int size;
};
#ifdef MENDED
MIVO_FIELDS(Job, size)
#endif

void Offer(mivo::Server& server) {
  server.on("submit", [](const Job& job) { return job.size; });
}
