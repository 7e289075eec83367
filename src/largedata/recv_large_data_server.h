// Receives large requests on a server, has them served, and sends the results back the same way.
#ifndef MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_
#define MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "calls/in_order_method.h"
#include "largedata/partial_table.h"

namespace mivo {

class RecvLargeDataServer : public InOrderMethod {
 public:
  // Calls the method `name` of the server.
  using Dispatch = std::function<void(const std::string& name, int client_id, MIVOParams* request, MIVOParams* result)>;
  // Sends one slice to the client and waits for its answer; false if none came.
  using SendSlice = std::function<bool(int client_id, int key, MIVOParams* slice)>;
  RecvLargeDataServer(Dispatch dispatch, SendSlice send_slice);

  // One slice, out of turn: the method of a large message may be this receiver again. The last slice is answered after
  // the whole result was sent back.
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override;

  // The same in its turn.
  std::unique_ptr<IServerMethod> Arrive(std::string_view arguments) override;

 private:
  class Turn;
  void Answer(int client_id, int key, std::optional<std::string> bytes, MIVOParams* reply);
  void ServeWhole(int client_id, int key, MIVOParams* whole);

  const Dispatch dispatch_;
  const SendSlice send_slice_;
  PartialTable partial_table_;
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_
