// What the programs beside this file have in common: a server whose handlers run in the program's own loop, and a
// client on another thread that calls them.
#ifndef MIVO_EXAMPLES_LOOPS_SCENARIO_H_
#define MIVO_EXAMPLES_LOOPS_SCENARIO_H_

#include <mivo/rpc.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

struct Scenario {
  // `stop` ends the program's loop, and is called in it.
  Scenario(const std::string& name, std::function<void()> stop) {
    const std::string address = "unix:example_loops_" + name + std::to_string(getpid());
    server.on("show", loop([this](const std::string& text) {
                const bool is_here = std::this_thread::get_id() == main_thread;
                std::printf("%s, on %s\n", text.c_str(), is_here ? "the loop's thread" : "ANOTHER THREAD");
                return ++shown;
              }));
    server.on("stop", loop(std::move(stop)));
    server.listen(address);
    caller = std::thread([address] {
      mivo::Client client(address);
      int count = 0;
      for (const char* const text : {"one", "two", "three"})
        count = client.call<int>("show", text);
      client.call("stop");
      std::printf("%d shown\n", count);
    });
  }
  ~Scenario() { caller.join(); }

  static bool AsksForHelp(int argc, char** argv, const char* what) {
    if (argc < 2) return false;
    std::printf("usage: %s\n\nHandlers in %s.\n", argv[0], what);
    return true;
  }

  const std::thread::id main_thread = std::this_thread::get_id();
  int shown = 0;
  mivo::Loop loop;
  mivo::Server server;
  std::thread caller;
};

#endif  // MIVO_EXAMPLES_LOOPS_SCENARIO_H_
