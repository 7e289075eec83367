#include "largedata/recv_large_data_client.h"

#include <optional>
#include <utility>

#include "largedata/slice.h"
#include "values/encoding.h"

namespace mivo {

RecvLargeDataClient::RecvLargeDataClient(Deliver deliver) : deliver_(std::move(deliver)) {}

void RecvLargeDataClient::Take(int connection_id, std::string_view slice) {
  const Slice read = ReadSlice(slice);
  std::optional<std::string> whole = partial_.Add(connection_id, read);
  if (whole) deliver_(read.key, std::move(*whole));
}

void RecvLargeDataClient::OnCall(int connection_id, MIVOParams* request, MIVOParams*) {
  Take(connection_id, EncodingOf(*request));
}

}  // namespace mivo
