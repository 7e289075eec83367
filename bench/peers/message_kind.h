// The first byte of a message, for peers that carry bytes and nothing else.
#ifndef MIVO_BENCH_PEERS_MESSAGE_KIND_H_
#define MIVO_BENCH_PEERS_MESSAGE_KIND_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bench {

constexpr char kEchoMessage = 'E';
constexpr char kPostMessage = 'P';
constexpr char kPostedMessage = 'C';
constexpr char kSlowMessage = 'S';

// A number behind the first byte; both sides run on one machine.
constexpr std::size_t kNumberMessageSize = 1 + sizeof(std::uint64_t);

inline void PutNumber(char* message, char kind, std::uint64_t number) {
  message[0] = kind;
  std::memcpy(message + 1, &number, sizeof number);
}

inline std::uint64_t NumberIn(const char* message, std::size_t size) {
  std::uint64_t number = 0;
  if (size == kNumberMessageSize) std::memcpy(&number, message + 1, sizeof number);
  return number;
}

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_MESSAGE_KIND_H_
