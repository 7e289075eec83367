// Receives large requests on a server, has them served, and sends the results back the same way.
#ifndef MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_
#define MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_

#include <mivo/handler.h>

#include <functional>
#include <string>

#include "largedata/partial_table.h"

namespace mivo {

class RecvLargeDataServer : public IServerMethod {
 public:
  // Calls the method `name` of the server.
  using Dispatch = std::function<void(const std::string& name, int client_id, MIVOParams* request, MIVOParams* result)>;
  // Sends one slice to the client and waits for its answer; false if none came.
  using SendSlice = std::function<bool(int client_id, int key, MIVOParams* slice)>;
  RecvLargeDataServer(Dispatch dispatch, SendSlice send_slice);

  // One slice. The last one is answered after the whole result was sent back.
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override;

 private:
  void ServeWhole(int client_id, int key, MIVOParams* whole);

  const Dispatch dispatch_;
  const SendSlice send_slice_;
  PartialTable partial_table_;
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_
