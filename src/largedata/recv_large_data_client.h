// Receives large results on a client.
#ifndef MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_
#define MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_

#include <mivo/handler.h>

#include <functional>
#include <string>
#include <string_view>

#include "largedata/partial_table.h"

namespace mivo {

class RecvLargeDataClient : public IServerMethod {
 public:
  // `deliver` gets each complete result, encoded, on the thread that has brought its last slice.
  using Deliver = std::function<void(int key, std::string result)>;
  explicit RecvLargeDataClient(Deliver deliver);

  // One slice, encoded, in the order in which they arrive. Quick: for the thread that reads.
  void Take(int connection_id, std::string_view slice);

  // The connection has gone, and its unfinished results with it.
  void Forget(int connection_id) { partial_.Forget(connection_id); }

  // The same as Take. Adds nothing to the reply.
  void OnCall(int connection_id, MIVOParams* request, MIVOParams* reply) override;

 private:
  const Deliver deliver_;
  PartialTable partial_;
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_
