#include "tcpserver/process_server.h"

#include <mivo/tcpserver.h>

namespace mivo {

CTcpServer& ProcessServer() {
  static CTcpServer server(uv_default_loop());
  return server;
}

}  // namespace mivo
