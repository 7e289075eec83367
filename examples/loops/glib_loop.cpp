// Handlers in a main loop of GLib's.
#include <glib-unix.h>
#include <glib.h>

#include "scenario.h"

int main(int argc, char** argv) {
  if (Scenario::AsksForHelp(argc, argv, "a main loop of GLib's")) return 0;
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  Scenario scenario("glib", [loop] { g_main_loop_quit(loop); });
  const auto drain = [](gint, GIOCondition, gpointer queue) -> gboolean {
    static_cast<mivo::Loop*>(queue)->drain();
    return G_SOURCE_CONTINUE;
  };
  g_unix_fd_add(scenario.loop.descriptor(), G_IO_IN, drain, &scenario.loop);
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
}
