#include "support/child_program.h"

#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace mivo_test {
namespace {

constexpr char kRoleVariable[] = "MIVO_TEST_ROLE";
constexpr char kArgumentVariable[] = "MIVO_TEST_ROLE_ARGUMENT";

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::optional<int> Reap(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) != pid) return std::nullopt;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

ChildProgram::ChildProgram(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no socket pair");
  io_ = RawPeer(ends[0], Transport::Local);

  std::vector<std::string> words = arguments;
  std::vector<std::string> variables = environment;
  for (char** variable = environ; *variable != nullptr; ++variable)
    variables.emplace_back(*variable);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t nothing;
  sigemptyset(&nothing);
  posix_spawnattr_setsigmask(&attributes, &nothing);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int error =
      posix_spawnp(&pid_, words[0].c_str(), &actions, &attributes, Pointers(words).data(), Pointers(variables).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (error != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot run '" + words[0] + "' (" + std::strerror(error) +
                             "): this test needs it, install its package");
  }
}

ChildProgram::ChildProgram(ChildProgram&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), io_(std::move(other.io_)) {}

ChildProgram::~ChildProgram() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string ChildProgram::ReadOutput() {
  std::string output;
  while (const std::optional<std::string> byte = io_.ReadBytes(1))
    output += *byte;
  return output;
}

std::optional<int> ChildProgram::Wait(std::chrono::milliseconds patience) {
  std::optional<int> status;
  Eventually([&] { return (status = Reap(pid_)).has_value(); }, patience);
  if (status) pid_ = -1;
  return status;
}

Role::Role(const char* name, int (*play)(const std::string& argument)) {
  const char* const wanted = std::getenv(kRoleVariable);
  if (wanted == nullptr || std::strcmp(wanted, name) != 0) return;
  const char* const argument = std::getenv(kArgumentVariable);
  std::exit(play(argument == nullptr ? "" : argument));
}

ChildProgram StartRole(const std::string& name, const std::string& argument) {
  return ChildProgram({"/proc/self/exe"}, {kRoleVariable + ("=" + name), kArgumentVariable + ("=" + argument)});
}

}  // namespace mivo_test
