#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

extern char** environ;

namespace mivo_test {
namespace {

constexpr int kReportDescriptor = 3;

std::vector<char*> Pointers(std::vector<std::string>* texts) {
  std::vector<char*> pointers;
  for (std::string& text : *texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& extra_environment) {
  std::vector<std::string> argument_texts = {program};
  argument_texts.insert(argument_texts.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment_texts = extra_environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('=') + 1);
    const bool replaced =
        std::any_of(extra_environment.begin(), extra_environment.end(),
                    [&](const std::string& extra) { return extra.compare(0, name.size(), name) == 0; });
    if (!replaced) environment_texts.push_back(text);
  }

  int input[2];
  int report[2];
  if (pipe2(input, O_CLOEXEC) != 0) return;
  if (pipe2(report, O_CLOEXEC) != 0) {
    close(input[0]);
    close(input[1]);
    return;
  }
  // Not below 4, so that no duplication in the child hits another's source.
  const int report_end = fcntl(report[1], F_DUPFD_CLOEXEC, 10);
  close(report[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, report_end, kReportDescriptor);
  pid_t pid = -1;
  if (posix_spawn(&pid, program.c_str(), &actions, nullptr, Pointers(&argument_texts).data(),
                  Pointers(&environment_texts).data()) == 0) {
    pid_ = pid;
  }
  posix_spawn_file_actions_destroy(&actions);
  close(input[0]);
  close(report_end);
  input_ = input[1];
  report_ = report[0];
}

ChildProcess::~ChildProcess() {
  CloseInput();
  if (pid_ > 0 && !status_ && !WaitForExit(std::chrono::milliseconds(0))) {
    kill(pid_, SIGKILL);
    WaitForExit();
  }
  if (report_ >= 0) close(report_);
}

void ChildProcess::CloseInput() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::size_t end = 0;
  while ((end = read_.find('\n')) == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd entry{report_, POLLIN, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
    char chunk[1024];
    const ssize_t count = read(report_, chunk, sizeof chunk);
    if (count <= 0) return std::nullopt;
    read_.append(chunk, static_cast<std::size_t>(count));
  }
  std::string line = read_.substr(0, end);
  read_.erase(0, end + 1);
  return line;
}

std::optional<int> ChildProcess::WaitForExit(std::chrono::milliseconds patience) {
  Eventually(
      [&] {
        int status = 0;
        if (status_ || pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) return status_.has_value();
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
      },
      patience);
  return status_;
}

}  // namespace mivo_test
