// Messages over a blocking socket: what an exchange costs that does nothing but travel. The flavour "polling" looks for
// 20 us before it sleeps, on both sides; "raw-best" in the tables.
#ifndef MIVO_BENCH_PEERS_RAW_STREAM_H_
#define MIVO_BENCH_PEERS_RAW_STREAM_H_

#include <cstddef>
#include <memory>
#include <string>

#include "harness/options.h"

namespace bench {

// What the byte before a body says.
enum class RawKind : char {
  kEcho = 'E',
  kPost = 'P',
  kPosted = 'C',
  kSlow = 'S',
  kBackCalls = 'B',
  kCallMeBack = 'K',
  kBackTimes = 'T',
};

class RawStream {
 public:
  // Takes the descriptor.
  RawStream(const Options& options, int descriptor);
  ~RawStream();
  RawStream(const RawStream&) = delete;
  RawStream& operator=(const RawStream&) = delete;

  // False when the connection has ended.
  bool Write(RawKind kind, const char* body, std::size_t size);
  bool Write(RawKind kind, const std::string& body) { return Write(kind, body.data(), body.size()); }
  // One message, into kind() and body().
  bool Read();

  RawKind kind() const { return kind_; }
  const std::string& body() const { return body_; }

 private:
  long Receive(char* to, std::size_t size) const;
  bool Fill(std::size_t size);

  const int descriptor_;
  const bool polling_;
  // Not set to zero: what is not used is not to count as memory of a connection.
  const std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  RawKind kind_ = RawKind::kEcho;
  std::string body_;
};

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_RAW_STREAM_H_
