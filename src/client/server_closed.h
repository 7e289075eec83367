// The client's own handler for the end of its connection.
#ifndef MIVO_CLIENT_SERVER_CLOSED_H_
#define MIVO_CLIENT_SERVER_CLOSED_H_

#include <mivo/handler.h>

namespace mivo {

// Holds the place of the notice that follows the application's; there is nothing left to do in it.
class ServerClosed : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams*) override {}
};

}  // namespace mivo

#endif  // MIVO_CLIENT_SERVER_CLOSED_H_
