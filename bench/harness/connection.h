// What a peer must offer to be measured: one connection, seen from the client.
#ifndef MIVO_BENCH_HARNESS_CONNECTION_H_
#define MIVO_BENCH_HARNESS_CONNECTION_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace bench {

// What travels in a small call: an integer, a short string, a blob of 64 bytes.
constexpr std::int32_t kSmallInt = 7;
constexpr const char* kSmallText = "hello world";
constexpr std::size_t kSmallTextSize = 11;
const std::string& SmallBlob();
// For peers without an encoding: as many bytes as the three take with names and lengths.
constexpr std::size_t kSmallBody = 96;

// Thrown where a reply is not what was sent, and where a call fails.
class Wrong : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
void Require(bool condition, const char* what);

// Operations that a peer lacks are never called: Peer::left_out names the measures that need them.
class Connection {
 public:
  virtual ~Connection() = default;

  // The small call: echoed, and compared here.
  virtual void Call() = 0;

  // One message there and back. Compares the length; EchoedIs compares the bytes of the last one, outside the time
  // measured.
  virtual void Echo(const std::string& bytes) = 0;
  virtual bool EchoedIs(const std::string& bytes) = 0;

  // The same by the peer's means for data of any size. Those that have no special ones use one message.
  virtual void EchoLarge(const std::string& bytes) { Echo(bytes); }

  // A call whose handler sleeps.
  virtual void Slow(unsigned) { Lacking(); }

  // A call that nobody waits for, and how many of them the server has handled since it began.
  virtual void Post() { Lacking(); }
  virtual std::uint64_t Posted() { Lacking(); }

  // So many calls under way at a time, from this thread; returns when all are answered.
  virtual void CallMany(int) { Lacking(); }

  // Has the server make small calls to this client, one after the other, for so long. The time of each, in ns, is
  // kept at the server until BackTimes.
  virtual void BackCalls(unsigned) { Lacking(); }
  // Posts a request for one small call to this client, and returns when this client has answered it.
  virtual void CallMeBack() { Lacking(); }
  // The times kept since the last look, an unsigned integer of 32 bits each.
  virtual std::string BackTimes() { Lacking(); }

 private:
  [[noreturn]] static void Lacking() { throw Wrong("this peer does not offer it"); }
};

struct Peer {
  using Connect = std::function<std::unique_ptr<Connection>()>;
  // For the thread that connects; returns when the connection can carry a call, or is on its way to that.
  Connect connect;
  // For many threads at once; empty where each caller needs a connection of its own.
  Connect connect_shared;
  // May a connection be destroyed by another thread than that which made it, and does it take so long that many
  // should be destroyed at once?
  bool slow_to_close = false;
  // Measures that this peer has no place in, with the reason.
  std::map<std::string, std::string> left_out;
};

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_CONNECTION_H_
