// What the main functions of servers and clients consist of.
#ifndef MIVO_BENCH_HARNESS_PROGRAM_H_
#define MIVO_BENCH_HARNESS_PROGRAM_H_

#include <functional>

#include "harness/connection.h"
#include "harness/options.h"

namespace bench {

// `serve` calls its second argument once it listens. It may return then or serve on; the program ends when its standard
// input does, so that no server outlives whoever started it.
using Serve = std::function<void(const Options&, const std::function<void()>& listening)>;
int ServerMain(int argc, char** argv, const Serve& serve);

// Runs the one measure that the command line names and prints what came of it.
using MakePeer = std::function<Peer(const Options&)>;
int ClientMain(int argc, char** argv, const MakePeer& make_peer);

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_PROGRAM_H_
