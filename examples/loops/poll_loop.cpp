// Handlers in a loop around poll().
#include <poll.h>

#include "scenario.h"

int main(int argc, char** argv) {
  if (Scenario::AsksForHelp(argc, argv, "a loop around poll()")) return 0;
  bool is_over = false;
  Scenario scenario("poll", [&is_over] { is_over = true; });
  pollfd readable{scenario.loop.descriptor(), POLLIN, 0};
  while (!is_over) {
    poll(&readable, 1, -1);
    scenario.loop.drain();
  }
}
