// A program of somebody else that uses the plain TCP server on a loop of its own.
#include <mivo/tcpserver.h>

#include <uv.h>

#include <cstdio>

int main() {
  uv_loop_t loop;
  if (uv_loop_init(&loop) != 0) return 1;
  {
    CTcpServer server(&loop);
    if (CTcpServer::IntToString(1234) != "1234") {
      std::puts("a number is written wrongly");
      return 1;
    }
  }
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
  std::puts("tcp listener: fine");
  return 0;
}
