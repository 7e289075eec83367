// The command line that all servers and clients of the benchmark have in common.
#ifndef MIVO_BENCH_HARNESS_OPTIONS_H_
#define MIVO_BENCH_HARNESS_OPTIONS_H_

#include <cstddef>
#include <string>

namespace bench {

struct Options {
  // "unix:/path" or "tcp:127.0.0.1:4000".
  std::string address;
  // What a program offers in several kinds, "polling" or "framed"; empty for the plain kind.
  std::string flavour;
  std::string measure = "call";
  double seconds = 0.3;
  // So many calls instead of so many seconds, where counts are to be compared; 0: by time.
  int calls = 0;
  int threads = 8;
  int connections = 8;
  std::size_t size = 1 << 20;
  // The server's process, whose use of CPU is read; 0: not read.
  int server_pid = 0;

  bool Tcp() const;
  std::string Path() const;
  std::string Host() const;
  int Port() const;
};

// Ends the program when the command line is not understood, or asks for help.
Options ParseOptions(int argc, char** argv);

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_OPTIONS_H_
