// refused: <mivo/rpc/coroutine.h> needs a compiler with the coroutines of C++20
#include <mivo/rpc.h>
#ifndef MENDED
#include <mivo/rpc/coroutine.h>
#endif

void Note(mivo::Client& client) {
  client.post("note");
}
