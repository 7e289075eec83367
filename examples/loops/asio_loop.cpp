// Handlers in an io_context of Boost.Asio's.
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "scenario.h"

namespace {

using Descriptor = boost::asio::posix::stream_descriptor;

void DrainNextTime(Descriptor& readable, const mivo::Loop& loop) {
  readable.async_wait(Descriptor::wait_read, [&readable, &loop](const boost::system::error_code& error) {
    if (error) return;
    loop.drain();
    DrainNextTime(readable, loop);
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (Scenario::AsksForHelp(argc, argv, "an io_context of Boost.Asio's")) return 0;
  boost::asio::io_context context;
  Scenario scenario("asio", [&context] { context.stop(); });
  // It closes what it watches.
  Descriptor readable(context, dup(scenario.loop.descriptor()));
  DrainNextTime(readable, scenario.loop);
  context.run();
}
