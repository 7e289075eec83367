#include "largedata/recv_large_data_client.h"

#include <mivo/params.h>

#include <utility>

#include "largedata/slice.h"

namespace mivo {

RecvLargeDataClient::RecvLargeDataClient(Deliver deliver) : deliver_(std::move(deliver)) {}

void RecvLargeDataClient::OnCall(int, MIVOParams* request, MIVOParams*) {
  const Slice slice = ReadSlice(*request);
  std::optional<std::string> whole = partial_table_.Add(slice);
  if (whole) deliver_(slice.key, std::move(*whole));
}

}  // namespace mivo
