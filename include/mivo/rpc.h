// Methods as functions, calls as calls: the layer to begin with. See docs/guide.md.
//
// It stands on the plain interface (<mivo/mivo.h>), on the same wire: a program that uses this layer and one that does
// not talk to each other. What has types of the standard library is compiled into the program, which need not be built
// by the compiler that has built the library. <mivo/rpc/recorder.h>, <mivo/rpc/signals.h> and <mivo/rpc/coroutine.h>
// stand apart.
#ifndef MIVO_RPC_H_
#define MIVO_RPC_H_

#include <mivo/rpc/client.h>
#include <mivo/rpc/per_client.h>
#include <mivo/rpc/server.h>

#endif  // MIVO_RPC_H_
