// refused: mivo: a handler must name the types of its parameters; a generic or overloaded function has none
#include <mivo/rpc.h>

struct Add {
  int operator()(int a, int b) const { return a + b; }
#ifndef MENDED
  double operator()(double a, double b) const {
    return a + b;
  }
#endif
};

void Offer(mivo::Server& server) {
  server.on("add", Add());
}
