// Receives large results on a client.
#ifndef MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_
#define MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "calls/in_order_method.h"
#include "largedata/partial_table.h"

namespace mivo {

class RecvLargeDataClient : public InOrderMethod {
 public:
  // `deliver` gets each complete result, encoded, on the pool thread that brought its last slice.
  using Deliver = std::function<void(int key, std::string result)>;
  explicit RecvLargeDataClient(Deliver deliver);

  // One slice, out of turn. Adds nothing to the reply.
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override;

  // The same in its turn.
  std::unique_ptr<IServerMethod> Arrive(std::string_view arguments) override;

 private:
  class Turn;
  void Take(int key, std::optional<std::string> whole);

  const Deliver deliver_;
  PartialTable partial_table_;
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RECV_LARGE_DATA_CLIENT_H_
