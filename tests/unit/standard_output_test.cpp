#include "base/standard_output.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "support/background.h"
#include "support/child_program.h"
#include "support/output_channel.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Channel;
using mivo_test::Event;
using mivo_test::Eventually;
using mivo_test::OutputChannel;
using mivo_test::StdoutCapture;

// More than a pipe, a socket or a terminal holds by itself, and no more than may wait.
constexpr int kLines = 2000;

std::string Line(int number) {
  std::string line = "line " + std::to_string(number) + " ";
  return line + std::string(100 - line.size(), 'x') + "\n";
}

std::string Lines(int from, int to) {
  std::string lines;
  for (int i = from; i < to; ++i)
    lines += Line(i);
  return lines;
}

bool WriteLines(int from, int to) {
  for (int i = from; i < to; ++i)
    WriteLine(Line(i));
  return true;
}

// How many lines there are before the first that is cut or something else.
int KeptIn(const std::string& text) {
  int kept = 0;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line) && line + "\n" == Line(kept))
    ++kept;
  return kept;
}

// A thread of that name: it gives itself the name, so that it is not there at once.
bool HasThread() {
  for (const int id : mivo_test::Threads()) {
    std::ifstream file("/proc/self/task/" + std::to_string(id) + "/comm");
    std::string name;
    if (std::getline(file, name) && name == "mivo-lines") return true;
  }
  return false;
}
bool EventuallyHasThread() {
  return Eventually(&HasThread);
}
bool EventuallyHasNone() {
  return Eventually([] { return !HasThread(); });
}

std::string Name(const testing::TestParamInfo<Channel>& instance) {
  switch (instance.param) {
    case Channel::Pipe:
      return "Pipe";
    case Channel::Socket:
      return "Socket";
    case Channel::Terminal:
      break;
  }
  return "Terminal";
}

class OutputInto : public testing::TestWithParam<Channel> {
 protected:
  // The queue is the whole program's: nothing of one test is left for the next.
  ~OutputInto() override { EXPECT_TRUE(EventuallyHasNone()); }
};

INSTANTIATE_TEST_SUITE_P(Any, OutputInto, testing::Values(Channel::Pipe, Channel::Socket, Channel::Terminal), Name);

TEST_P(OutputInto, IsThereWhenTheWriterReturns) {
  OutputChannel out(GetParam());
  WriteLine("one\n");
  EXPECT_EQ(out.ReadNow(), "one\n");
  PrintDirect("%d %s\n", 2, "lines");
  EXPECT_EQ(out.ReadNow(), "2 lines\n");
}

TEST_P(OutputInto, DoesNotWaitForAReaderThatHasStopped) {
  OutputChannel out(GetParam());
  Background<bool> writer([] { return WriteLines(0, kLines); });
  const bool returned = writer.WaitFor();
  const bool by_a_thread = EventuallyHasThread();
  // And when it reads again nothing is missing, and nothing has changed its place.
  EXPECT_EQ(out.ReadUntil(Line(kLines - 1)), Lines(0, kLines));
  EXPECT_TRUE(returned);
  EXPECT_TRUE(by_a_thread);
  EXPECT_TRUE(EventuallyHasNone());
  WriteLine("at once\n");
  EXPECT_EQ(out.ReadNow(), "at once\n");
}

TEST_P(OutputInto, CountsWhatItCouldNotKeep) {
  constexpr int kMany = 20000;
  OutputChannel out(GetParam());
  Background<bool> writer([] { return WriteLines(0, kMany); });
  const bool returned = writer.WaitFor();
  const std::string text = out.ReadUntil(" lines lost\n");
  ASSERT_TRUE(returned);
  const std::size_t note = text.rfind('\n', text.size() - 2) + 1;
  const int kept = KeptIn(text.substr(0, note));
  EXPECT_GT(kept, 4000);
  EXPECT_EQ(text.substr(0, note), Lines(0, kept));
  std::string lost = text.substr(note, text.find(' ', note) - note);
  ASSERT_EQ(lost.size(), 6U) << lost;
  EXPECT_EQ(lost[2], ',');
  lost.erase(2, 1);
  EXPECT_EQ(kept + std::stoi(lost), kMany);
  EXPECT_TRUE(EventuallyHasNone());
  WriteLine("after\n");
  EXPECT_EQ(out.ReadNow(), "after\n");
}

TEST_P(OutputInto, ComesBehindWhatTheProgramHasPrinted) {
  OutputChannel out(GetParam());
  std::printf("the program's ");
  WriteLine("line\n");
  EXPECT_EQ(out.ReadUntil("line\n"), "the program's line\n");
}

TEST_P(OutputInto, DoesNotWaitWithWhatTheProgramHasPrinted) {
  OutputChannel out(GetParam());
  const std::string prompt(700, '?');
  Background<bool> writer([&] {
    WriteLines(0, kLines);
    std::printf("%s", prompt.c_str());
    return WriteLines(kLines, kLines + 2);
  });
  const bool returned = writer.WaitFor();
  const std::string text = out.ReadUntil(Line(kLines + 1));
  EXPECT_TRUE(returned);
  // It may be ahead of lines that wait.
  EXPECT_EQ(text.size(), Lines(0, kLines + 2).size() + prompt.size());
  EXPECT_NE(text.find(prompt), std::string::npos);
}

TEST_P(OutputInto, LeavesTheDescriptorAsItIs) {
  OutputChannel out(GetParam());
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  const int descriptors = mivo_test::CountEntries("/proc/self/fd");
  Background<bool> writer([] { return WriteLines(0, kLines); });
  const bool returned = writer.WaitFor();
  const int flags_meanwhile = fcntl(STDOUT_FILENO, F_GETFL);
  EXPECT_EQ(out.ReadUntil(Line(kLines - 1)).size(), Lines(0, kLines).size());
  EXPECT_TRUE(returned);
  EXPECT_EQ(flags_meanwhile, flags);
  EXPECT_TRUE(Eventually([&] { return mivo_test::CountEntries("/proc/self/fd") == descriptors; }));
  EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFL), flags);
}

TEST_P(OutputInto, WorksWithoutADescriptorToSpare) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "The undefined-behaviour sanitizer looks at a new thread's object through a pipe, which needs two";
#endif
  OutputChannel out(GetParam());
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  Background<bool> writer([] { return WriteLines(0, kLines); });
  const bool returned = writer.WaitFor();
  const std::string text = out.ReadUntil(Line(kLines - 1));
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_TRUE(returned);
  EXPECT_EQ(text, Lines(0, kLines));
}

TEST_P(OutputInto, DoesNotWaitForAThreadThatIsInsideStdio) {
  OutputChannel out(GetParam());
  Event held;
  Event release;
  std::thread holder([&] {
    flockfile(stdout);
    held.Signal();
    release.WaitFor();
    funlockfile(stdout);
  });
  const bool holding = held.WaitFor();
  Background<bool> writer([] { return WriteLines(0, 3); });
  const bool returned = writer.WaitFor();
  const std::string meanwhile = out.ReadNow();
  release.Signal();
  EXPECT_EQ(out.ReadUntil(Line(2)), Lines(0, 3));
  EXPECT_TRUE(holding);
  EXPECT_TRUE(returned);
  EXPECT_EQ(meanwhile, "");
  holder.join();
}

// Forks while lines wait, has the child do this, and reads what the parent's reader was to read.
int StatusOfAChild(OutputChannel& out, const std::function<bool()>& in_child) {
  Background<bool> writer([] { return WriteLines(0, kLines); });
  const bool returned = writer.WaitFor();
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(in_child() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(out.ReadUntil(Line(kLines - 1)), Lines(0, kLines));
  EXPECT_TRUE(returned);
  return status;
}

TEST_P(OutputInto, AChildOfForkWritesItsOwnLinesAndNotItsParents) {
  OutputChannel out(GetParam());
  const int status = StatusOfAChild(out, [this] {
    OutputChannel own(GetParam());
    WriteLine("child\n");
    return own.ReadUntil("child\n") == "child\n" && !HasThread();
  });
  EXPECT_EQ(status, 0);
}

TEST_P(OutputInto, AChildOfForkHasAThreadOfItsOwn) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer ends a child of fork that starts threads";
#endif
  OutputChannel out(GetParam());
  const int status = StatusOfAChild(out, [this] {
    OutputChannel own(GetParam());
    WriteLines(0, kLines);
    return EventuallyHasThread() && own.ReadUntil(Line(kLines - 1)) == Lines(0, kLines);
  });
  EXPECT_EQ(status, 0);
}

TEST(StandardOutput, IsNoMatterWhenItIsClosed) {
  const StdoutCapture out;
  const int real = dup(STDOUT_FILENO);
  ASSERT_EQ(close(STDOUT_FILENO), 0);
  errno = 7;
  WriteLine("to nobody\n");
  const int error = errno;
  ASSERT_EQ(dup2(real, STDOUT_FILENO), STDOUT_FILENO);
  close(real);
  EXPECT_EQ(error, 7);
  WriteLine("to somebody\n");
  EXPECT_EQ(out.Text(), "to somebody\n");
}

TEST(StandardOutput, WithoutAReaderIsNotTriedForEver) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int real = dup(STDOUT_FILENO);
  std::fflush(stdout);
  ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);
  close(ends[1]);
  close(ends[0]);
  const sighandler_t before = signal(SIGPIPE, SIG_IGN);
  WriteLine("to nobody\n");
  const bool tries_on = HasThread();
  signal(SIGPIPE, before);
  ASSERT_EQ(dup2(real, STDOUT_FILENO), STDOUT_FILENO);
  close(real);
  EXPECT_FALSE(tries_on);
}

// The role's standard output is a socket that nobody reads.
const mivo_test::Role kLeavesWithLinesWaiting("leaves with lines waiting", [](const std::string&) {
  WriteLines(0, 10000);
  return EventuallyHasThread() ? 23 : 1;
});

TEST(StandardOutput, DoesNotKeepAProgramFromLeaving) {
  mivo_test::ChildProgram program = mivo_test::StartRole("leaves with lines waiting");
  EXPECT_EQ(program.Wait(), 23);
}

// It leaves while another thread is inside stdio: the line could not be written before.
const mivo_test::Role kLeavesWithOneLineWaiting("leaves with one line waiting", [](const std::string&) {
  static Event held;
  static Event release;
  std::thread([] {
    flockfile(stdout);
    held.Signal();
    release.WaitFor();
    funlockfile(stdout);
  }).detach();
  held.WaitFor();
  WriteLine("last words\n");
  release.Signal();
  return 0;
});

TEST(StandardOutput, GivesWhatWaitsAMomentWhenTheProgramLeaves) {
  mivo_test::ChildProgram program = mivo_test::StartRole("leaves with one line waiting");
  EXPECT_EQ(program.ReadOutput(), "last words\n");
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
}  // namespace mivo
