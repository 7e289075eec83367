#include "harness/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

namespace bench {

bool Options::Tcp() const {
  return address.rfind("tcp:", 0) == 0;
}

std::string Options::Path() const {
  return address.substr(address.find(':') + 1);
}

std::string Options::Host() const {
  const std::string rest = Path();
  return rest.substr(0, rest.rfind(':'));
}

int Options::Port() const {
  return std::atoi(address.c_str() + address.rfind(':') + 1);
}

Options ParseOptions(int argc, char** argv) {
  Options options;
  CLI::App app(
      "One side of a benchmark. A server says READY and serves until its standard input ends; a client prints "
      "one line of JSON.");
  app.add_option("--address", options.address, "unix:/path or tcp:host:port")->required();
  app.add_option("--flavour", options.flavour, "the kind, of programs that have several");
  app.add_option("--measure", options.measure, "what the client measures");
  app.add_option("--seconds", options.seconds, "for how long");
  app.add_option("--calls", options.calls, "how many calls, instead of a time");
  app.add_option("--threads", options.threads, "how many threads call, post or are slow");
  app.add_option("--connections", options.connections, "how many connections are held");
  app.add_option("--size", options.size, "bytes of an echo");
  app.add_option("--server-pid", options.server_pid, "the server, for its use of CPU");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error));
  }
  return options;
}

}  // namespace bench
