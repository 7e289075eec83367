#include "harness/program.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "harness/measures.h"
#include "harness/usage.h"

namespace bench {
namespace {

// Libraries may print what they like: it goes to standard error, and standard output is kept for the answer.
class Answer {
 public:
  Answer() : output_(fcntl(1, F_DUPFD_CLOEXEC, 3)) { dup2(2, 1); }
  void Say(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(output_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(4);
  }

 private:
  int output_;
};

void WaitForEndOfInput() {
  char bytes[64];
  while (read(0, bytes, sizeof bytes) > 0) {
  }
}

}  // namespace

int ServerMain(int argc, char** argv, const Serve& serve) {
  const Options options = ParseOptions(argc, argv);
  const Answer answer;
  std::signal(SIGPIPE, SIG_IGN);
  std::thread([] {
    WaitForEndOfInput();
    _exit(0);
  }).detach();
  std::thread(ServeUsage).detach();
  try {
    serve(options, [&answer] { answer.Say("READY"); });
  } catch (const std::exception& error) {
    std::cerr << "server: " << error.what() << std::endl;
    _exit(3);
  }
  while (true)
    pause();
}

int ClientMain(int argc, char** argv, const MakePeer& make_peer) {
  const Options options = ParseOptions(argc, argv);
  const Answer answer;
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const Peer peer = make_peer(options);
    nlohmann::json result;
    const auto reason = peer.left_out.find(options.measure);
    if (reason != peer.left_out.end()) {
      result["left_out"] = reason->second;
    } else {
      RunMeasure(
          options, peer,
          [&] {
            answer.Say(R"({"held":)" + std::to_string(options.connections) + "}");
            WaitForEndOfInput();
            // Closing thousands of connections is not what is measured.
            _exit(0);
          },
          result);
    }
    answer.Say(result.dump());
  } catch (const std::exception& error) {
    std::cerr << "client: " << error.what() << std::endl;
    // Threads of the peer's may still be there; destroying what they use would hide the message.
    _exit(3);
  }
  // Objects that a library keeps to its end are none of the measure's business.
  _exit(0);
}

}  // namespace bench
