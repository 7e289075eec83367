#include "largedata/recv_large_data_client.h"

#include <mivo/params.h>

#include <utility>

#include "largedata/slice.h"

namespace mivo {

class RecvLargeDataClient::Turn : public IServerMethod {
 public:
  Turn(RecvLargeDataClient& receiver, const Slice& slice)
      : receiver_(receiver), slice_(receiver.partial_table_, slice) {}
  void OnCall(int, MIVOParams*, MIVOParams*) override { receiver_.Take(slice_.key(), slice_.Append()); }

 private:
  RecvLargeDataClient& receiver_;
  PartialTable::Arrival slice_;
};

RecvLargeDataClient::RecvLargeDataClient(Deliver deliver) : deliver_(std::move(deliver)) {}

std::unique_ptr<IServerMethod> RecvLargeDataClient::Arrive(std::string_view arguments) {
  return std::make_unique<Turn>(*this, ReadSlice(arguments));
}

void RecvLargeDataClient::OnCall(int, MIVOParams* request, MIVOParams*) {
  const Slice slice = ReadSlice(*request->GetParamas());
  Take(slice.key, partial_table_.Add(slice));
}

void RecvLargeDataClient::Take(int key, std::optional<std::string> whole) {
  if (whole) deliver_(key, std::move(*whole));
}

}  // namespace mivo
