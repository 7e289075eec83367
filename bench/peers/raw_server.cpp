#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>

#include "harness/connection.h"
#include "harness/program.h"
#include "harness/sockets.h"
#include "peers/back_times.h"
#include "peers/raw_stream.h"

namespace bench {
namespace {

std::atomic<std::uint64_t> posts{0};

unsigned NumberIn(const std::string& body) {
  unsigned number = 0;
  if (body.size() == sizeof number) std::memcpy(&number, body.data(), sizeof number);
  return number;
}

// The server's own call to its client.
bool CallBack(RawStream& stream, BackTimes& times) {
  static const std::string small(kSmallBody, 'b');
  bool good = false;
  times.Time([&] { good = stream.Write(RawKind::kEcho, small) && stream.Read() && stream.body() == small; });
  return good;
}

// False when the connection is to end.
bool Answer(RawStream& stream, BackTimes& times) {
  switch (stream.kind()) {
    case RawKind::kEcho:
      return stream.Write(RawKind::kEcho, stream.body());
    case RawKind::kPost:
      ++posts;
      return true;
    case RawKind::kPosted: {
      const std::uint64_t count = posts;
      return stream.Write(RawKind::kPosted, reinterpret_cast<const char*>(&count), sizeof count);
    }
    case RawKind::kSlow:
      Sleep(NumberIn(stream.body()) * 1e-6);
      return stream.Write(RawKind::kSlow, {});
    case RawKind::kBackCalls: {
      const double seconds = NumberIn(stream.body()) * 1e-3;
      for (const std::uint64_t begin = NowNs(); SecondsSince(begin) < seconds;) {
        if (!CallBack(stream, times)) return false;
      }
      return stream.Write(RawKind::kBackCalls, {});
    }
    case RawKind::kCallMeBack:
      return CallBack(stream, times);
    case RawKind::kBackTimes:
      return stream.Write(RawKind::kBackTimes, times.Take());
  }
  return false;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    const int socket = Listen(options);
    listening();
    while (true) {
      const int connection = Accept(options, socket);
      if (connection < 0) continue;
      std::thread([options, connection] {
        RawStream stream(options, connection);
        BackTimes times;
        while (stream.Read() && Answer(stream, times)) {
        }
      }).detach();
    }
  });
}
