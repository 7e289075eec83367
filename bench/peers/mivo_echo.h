// The small call, as both sides of libmivo need it.
#ifndef MIVO_BENCH_PEERS_MIVO_ECHO_H_
#define MIVO_BENCH_PEERS_MIVO_ECHO_H_

#include <mivo/mivo.h>

#include <cstring>
#include <string>

#include "harness/connection.h"
#include "harness/options.h"

namespace bench {

// Local sockets have names: the driver puts theirs where the library will look.
inline std::string MivoName(const Options& options) {
  const std::string path = options.Path();
  return path.substr(path.rfind("sock.") + 5);
}

inline void AddSmall(MIVOParams& params) {
  params.AddInt(kSmallInt);
  params.AddString(kSmallText);
  params.AddStream(SmallBlob().data(), static_cast<long>(SmallBlob().size()));
}

inline bool IsSmall(const MIVOParams& params) {
  const MIVOValue* const number = params.GetValue(0);
  const MIVOValue* const text = params.GetValue(1);
  const MIVOValue* const blob = params.GetValue(2);
  if (number == nullptr || text == nullptr || blob == nullptr || !blob->IsStream()) return false;
  long size = 0;
  const char* const bytes = blob->GetStream(size);
  return number->IsInt() && number->GetInt() == kSmallInt && text->IsString() &&
         std::strcmp(text->GetString(), kSmallText) == 0 && static_cast<std::size_t>(size) == SmallBlob().size() &&
         std::memcmp(bytes, SmallBlob().data(), SmallBlob().size()) == 0;
}

// Nothing is added to the reply when the request is not what it should be.
inline void EchoSmall(const MIVOParams& request, MIVOParams& reply) {
  const MIVOValue* const number = request.GetValue(0);
  const MIVOValue* const text = request.GetValue(1);
  const MIVOValue* const blob = request.GetValue(2);
  if (number == nullptr || text == nullptr || blob == nullptr) return;
  if (!number->IsInt() || !text->IsString() || !blob->IsStream()) return;
  reply.AddInt(number->GetInt());
  reply.AddString(text->GetString());
  long size = 0;
  const char* const bytes = blob->GetStream(size);
  reply.AddStream(bytes, size);
}

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_MIVO_ECHO_H_
