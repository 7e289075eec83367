// Receives large results on a client.
#ifndef MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_
#define MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_

#include <mivo/handler.h>

#include <functional>
#include <string>

#include "largedata/partial_table.h"

namespace mivo {

class RecvLargeDataClient : public IServerMethod {
 public:
  // `deliver` gets each complete result, encoded, on the pool thread that brought its last slice.
  using Deliver = std::function<void(int key, std::string result)>;
  explicit RecvLargeDataClient(Deliver deliver);

  // One slice. Adds nothing to the reply.
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override;

 private:
  const Deliver deliver_;
  PartialTable partial_table_;
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_
