// refused: mivo: a handler must name the types of its parameters; a generic or overloaded function has none
#include <mivo/rpc.h>

struct Counter {
  int Next() { return ++count; }
  int count = 0;
};

void Offer(mivo::Server& server, Counter& counter) {
#ifdef MENDED
  server.on("next", [&counter] { return counter.Next(); });
#else
  static_cast<void>(counter);
  server.on("next", &Counter::Next);
#endif
}
