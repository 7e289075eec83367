// Handlers in a loop of libuv's.
#include <uv.h>

#include "scenario.h"

int main(int argc, char** argv) {
  if (Scenario::AsksForHelp(argc, argv, "a loop of libuv's")) return 0;
  uv_loop_t* const loop = uv_default_loop();
  uv_poll_t readable;
  Scenario scenario("uv", [&readable] { uv_close(reinterpret_cast<uv_handle_t*>(&readable), nullptr); });
  uv_poll_init(loop, &readable, scenario.loop.descriptor());
  readable.data = &scenario.loop;
  uv_poll_start(&readable, UV_READABLE,
                [](uv_poll_t* handle, int, int) { static_cast<mivo::Loop*>(handle->data)->drain(); });
  uv_run(loop, UV_RUN_DEFAULT);
  uv_loop_close(loop);
}
