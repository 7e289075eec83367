// Receives large requests on a server, has them served, and gives their results to be sent back.
#ifndef MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_
#define MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_

#include <mivo/handler.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "largedata/partial_table.h"

namespace mivo {

class RecvLargeDataServer : public IServerMethod {
 public:
  // Calls the method `name` of the server.
  using Dispatch = std::function<void(const std::string& name, int client_id, MIVOParams* request, MIVOParams* result)>;
  explicit RecvLargeDataServer(Dispatch dispatch);

  // One slice, encoded, in the order in which they arrive. The message that it completes, if it does. Quick: for the
  // thread that reads.
  struct Whole {
    int key;
    std::string bytes;
  };
  std::optional<Whole> Take(int client_id, std::string_view slice);

  // Serves a message: its results, encoded, in the order in which they are to be sent back, and what is answered to the
  // slice that has completed it. One for the message itself; before it those of messages that it held.
  struct Served {
    std::vector<std::string> results;
    std::string reply;
  };
  Served Serve(int client_id, Whole whole);

  // The client has gone, and its unfinished messages with it.
  void Forget(int client_id) { partial_.Forget(client_id); }
  // All clients have gone.
  void ForgetAll() { partial_.ForgetAll(); }

  // A slice that came inside a large message: the method of one may be this receiver again. Its results are sent back
  // with those of the outer message.
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override;

 private:
  void Answer(int client_id, std::optional<Whole> whole, MIVOParams* reply, std::vector<std::string>* results);
  void ServeWhole(int client_id, int key, MIVOParams* whole, std::vector<std::string>* results);

  const Dispatch dispatch_;
  PartialTable partial_;
};

// What is answered to a slice that completes nothing.
std::string AnswerToSlice();

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RECV_LARGE_DATA_SERVER_H_
