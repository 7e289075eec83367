// The port hand-off between processes. The FIFO's name is made of a process id, so whoever creates it here is a child
// of this test, and every test program has a FIFO of its own.
#include <mivo/port_handoff.h>

#include "support/child_program.h"
#include "support/event.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

namespace {

using mivo_test::ChildProgram;
using mivo_test::Role;
using mivo_test::StartRole;

void PrintLine(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

int OpenDescriptorsOf(const std::string& path) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry, error) == path) ++count;
  }
  return count;
}

class PortHandoff : public testing::Test {
 protected:
  PortHandoff() { Remove(); }
  ~PortHandoff() override { Remove(); }

  bool IsFifo() const {
    struct stat status = {};
    return stat(path_.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
  }

  int Mode() const {
    struct stat status = {};
    return stat(path_.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
  }

  bool WaitForFifo() const {
    return mivo_test::Eventually([this] { return IsFifo(); });
  }

  // A program that writes `text` to the FIFO and closes it.
  ChildProgram Writer(const std::string& text) const {
    return ChildProgram({"sh", "-c", "printf " + text + " > " + path_});
  }

  const std::string path_ = "/tmp/echo.pipe." + std::to_string(getpid());

 private:
  void Remove() const {
    std::error_code error;
    std::filesystem::remove(path_, error);
  }
};

// ---- Creating

const Role kCreates("creates a pipe", [](const std::string& mask) {
  umask(static_cast<mode_t>(std::stoi(mask, nullptr, 8)));
  PrintLine("returned: " + CreatePortPipe());
  return umask(0) == static_cast<mode_t>(std::stoi(mask, nullptr, 8)) ? 0 : 1;
});

TEST_F(PortHandoff, CreatesAFifoNamedAfterTheParent) {
  ChildProgram child = StartRole("creates a pipe", "022");
  EXPECT_EQ(child.ReadOutput(), "create pipe: " + path_ + "\nreturned: " + path_ + "\n");
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(IsFifo());
}

TEST_F(PortHandoff, LetsEverybodyUseTheFifoAsFarAsTheUmaskDoes) {
  EXPECT_EQ(StartRole("creates a pipe", "0").Wait(), 0);
  EXPECT_EQ(Mode(), 0777);
  EXPECT_EQ(StartRole("creates a pipe", "027").Wait(), 0);
  EXPECT_EQ(Mode(), 0750);
}

TEST_F(PortHandoff, ReplacesAFileOfThatName) {
  std::ofstream(path_) << "left from an earlier process of that id";
  EXPECT_EQ(StartRole("creates a pipe", "022").Wait(), 0);
  EXPECT_TRUE(IsFifo());
}

TEST_F(PortHandoff, ReturnsNoPathAndSaysSoWhenTheFifoCannotBeMade) {
  ASSERT_TRUE(std::filesystem::create_directory(path_));
  ChildProgram child = StartRole("creates a pipe", "022");
  EXPECT_EQ(child.ReadOutput(), "create pipe error: " + path_ + ": File exists\nreturned: \n");
}

const Role kKeepsThePath("keeps the path", [](const std::string&) {
  const std::string path = CreatePortPipe();
  const pid_t child = fork();
  if (child == 0) _exit(CreatePortPipe() == path ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status);
});

TEST_F(PortHandoff, KeepsThePathInAForkedChild) {
  ChildProgram child = StartRole("keeps the path");
  EXPECT_EQ(child.ReadOutput(), "create pipe: " + path_ + "\ncreate pipe: " + path_ + "\n");
  EXPECT_EQ(child.Wait(), 0);
}

// ---- Writing

const Role kWrites("writes a port", [](const std::string& port) {
  const std::string path = CreatePortPipe();
  PrintLine(WritePortPipe(std::stoi(port)) ? "true" : "false");
  PrintLine("descriptors left open: " + std::to_string(OpenDescriptorsOf(path)));
  return 0;
});

TEST_F(PortHandoff, WritesThePortForAReaderThatOpensTheFifo) {
  ChildProgram writer = StartRole("writes a port", "40123");
  ASSERT_TRUE(WaitForFifo());
  ChildProgram cat({"cat", path_});
  EXPECT_EQ(cat.ReadOutput(), "40123");
  EXPECT_EQ(writer.ReadOutput(), "create pipe: " + path_ +
                                     "\nwrite port to pipe: 40123\nwrite port to pipe: 40123\ntrue\n"
                                     "descriptors left open: 1\n");
  EXPECT_EQ(writer.Wait(), 0);
}

TEST_F(PortHandoff, WritesAnyNumber) {
  ChildProgram writer = StartRole("writes a port", "-2147483648");
  ASSERT_TRUE(WaitForFifo());
  EXPECT_EQ(ChildProgram({"cat", path_}).ReadOutput(), "-2147483648");
}

// Its standard output is full, so that it stops at its first line, between opening and writing.
const Role kWritesIntoNothing("writes into nothing", [](const std::string&) {
  CreatePortPipe();
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  fcntl(STDOUT_FILENO, F_SETFL, flags | O_NONBLOCK);
  while (write(STDOUT_FILENO, ".", 1) == 1) {
  }
  fcntl(STDOUT_FILENO, F_SETFL, flags);
  return WritePortPipe(40123) ? 0 : 1;
});

TEST_F(PortHandoff, SurvivesAReaderThatHasGone) {
  ChildProgram writer = StartRole("writes into nothing");
  ASSERT_TRUE(WaitForFifo());
  ChildProgram reader({"sh", "-c", "exec 3< " + path_ + "; exec 3<&-"});
  EXPECT_EQ(reader.Wait(), 0);
  EXPECT_NE(writer.ReadOutput().find("write port to pipe: 40123\n"), std::string::npos);
  EXPECT_EQ(writer.Wait(), 0);
}

const Role kWritesWithoutAPipe("writes without a pipe", [](const std::string&) {
  PrintLine(WritePortPipe(1) ? "true" : "false");
  unlink(CreatePortPipe().c_str());
  PrintLine(WritePortPipe(2) ? "true" : "false");
  return 0;
});

TEST_F(PortHandoff, WritesNothingWithoutAFifo) {
  ChildProgram child = StartRole("writes without a pipe");
  EXPECT_EQ(child.ReadOutput(),
            "open pipe error: \nfalse\ncreate pipe: " + path_ + "\nopen pipe error: " + path_ + "\nfalse\n");
  EXPECT_EQ(child.Wait(), 0);
}

// ---- Reading

// Once, and then once for every line on standard input.
const Role kReads("reads a port", [](const std::string&) {
  const std::string path = CreatePortPipe();
  do {
    PrintLine("returned: " + ReadPortPipe());
  } while (std::getchar() == '\n');
  return OpenDescriptorsOf(path);
});

TEST_F(PortHandoff, ReadsFiveCharactersAtMost) {
  ChildProgram reader = StartRole("reads a port");
  ASSERT_TRUE(WaitForFifo());
  ChildProgram writer = Writer("123456789");
  reader.io().HalfClose();
  EXPECT_EQ(reader.ReadOutput(), "create pipe: " + path_ + "\nserver port: 12345\nreturned: 12345\n");
  EXPECT_EQ(reader.Wait(), 0) << "the FIFO was left open";
}

TEST_F(PortHandoff, ReadsFiveCharactersFromAWriterThatStaysThere) {
  ChildProgram reader = StartRole("reads a port");
  ASSERT_TRUE(WaitForFifo());
  // Keeps the FIFO open for as long as this test keeps its input open.
  reader.io().HalfClose();
  ChildProgram writer({"sh", "-c", "exec 3> " + path_ + "; printf 54321 >&3; cat"});
  EXPECT_EQ(reader.ReadOutput(), "create pipe: " + path_ + "\nserver port: 54321\nreturned: 54321\n");
}

TEST_F(PortHandoff, ReadsAShorterNumberToTheEnd) {
  ChildProgram reader = StartRole("reads a port");
  ASSERT_TRUE(WaitForFifo());
  reader.io().HalfClose();
  ChildProgram writer = Writer("80");
  EXPECT_EQ(reader.ReadOutput(), "create pipe: " + path_ + "\nserver port: 80\nreturned: 80\n");
}

TEST_F(PortHandoff, AppendsWhatALaterCallReads) {
  ChildProgram reader = StartRole("reads a port");
  ASSERT_TRUE(WaitForFifo());
  const auto expect = [&](const std::string& line) {
    const std::string wanted = "server port: " + line + "\nreturned: " + line + "\n";
    EXPECT_EQ(reader.io().ReadBytes(wanted.size()), wanted);
  };
  const std::string created = "create pipe: " + path_ + "\n";
  ASSERT_EQ(reader.io().ReadBytes(created.size()), created);
  EXPECT_EQ(Writer("80").Wait(), 0);
  expect("80");
  ASSERT_TRUE(reader.io().SendBytes("\n"));
  EXPECT_EQ(Writer("443").Wait(), 0);
  expect("80443");
  ASSERT_TRUE(reader.io().SendBytes("\n"));
  EXPECT_EQ(Writer("9").Wait(), 0);
  expect("804439");
}

const Role kReadsWithoutAPipe("reads without a pipe", [](const std::string&) {
  if (!ReadPortPipe().empty()) return 1;
  unlink(CreatePortPipe().c_str());
  return ReadPortPipe().empty() ? 0 : 2;
});

TEST_F(PortHandoff, ReadsNothingWithoutAFifo) {
  ChildProgram child = StartRole("reads without a pipe");
  EXPECT_EQ(child.ReadOutput(), "create pipe: " + path_ + "\n");
  EXPECT_EQ(child.Wait(), 0);
}

// ---- What somebody else has put in the FIFO's place

// It is not even opened: that would wait.
void UseWhatIsThere() {
  PrintLine("written: " + std::string(WritePortPipe(7) ? "true" : "false") + ", read: " + ReadPortPipe());
}

std::string Refusal(const std::string& path) {
  return "create pipe: " + path + "\nopen pipe error: " + path + "\nwritten: false, read: \n";
}

const Role kMeetsALink("meets a link", [](const std::string& target) {
  const std::string path = CreatePortPipe();
  unlink(path.c_str());
  if (symlink(target.c_str(), path.c_str()) != 0) return 1;
  UseWhatIsThere();
  return 0;
});

TEST_F(PortHandoff, DoesNotFollowALinkToAFile) {
  const std::string target = testing::TempDir() + "port_handoff_target." + std::to_string(getpid());
  std::ofstream(target) << "somebody's work";
  ChildProgram child = StartRole("meets a link", target);
  EXPECT_EQ(child.ReadOutput(), Refusal(path_));
  EXPECT_EQ(child.Wait(), 0);
  std::string content;
  std::getline(std::ifstream(target), content);
  EXPECT_EQ(content, "somebody's work");
  std::filesystem::remove(target);
}

TEST_F(PortHandoff, DoesNotFollowALinkToAFifoEither) {
  const std::string target = testing::TempDir() + "port_handoff_target." + std::to_string(getpid());
  ASSERT_EQ(mkfifo(target.c_str(), 0700), 0);
  const int descriptor = open(target.c_str(), O_RDWR | O_CLOEXEC);  // it could be opened at once
  EXPECT_EQ(write(descriptor, "61234", 5), 5);
  ChildProgram child = StartRole("meets a link", target);
  EXPECT_EQ(child.ReadOutput(), Refusal(path_));
  EXPECT_EQ(child.Wait(), 0);
  close(descriptor);
  std::filesystem::remove(target);
}

const Role kMeetsAFile("meets a file", [](const std::string&) {
  const std::string path = CreatePortPipe();
  unlink(path.c_str());
  std::ofstream(path) << "61234" << std::flush;
  UseWhatIsThere();
  std::string content;
  std::getline(std::ifstream(path), content);
  return content == "61234" ? 0 : 1;
});

TEST_F(PortHandoff, UsesNothingButAFifo) {
  ChildProgram child = StartRole("meets a file");
  EXPECT_EQ(child.ReadOutput(), Refusal(path_));
  EXPECT_EQ(child.Wait(), 0) << "the file is not what it was";
}

// Another user's FIFO with a port in it, and with both ends open: nothing but its owner speaks against it.
const Role kMeetsAStrangersFifo("meets a stranger's fifo", [](const std::string&) {
  constexpr uid_t kStranger = 65534;
  const std::string path = CreatePortPipe();
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (write(descriptor, "61234", 5) != 5 || chown(path.c_str(), kStranger, kStranger) != 0) return 1;
  UseWhatIsThere();
  char port[6] = {};
  return read(descriptor, port, sizeof port) == 5 && std::string(port) == "61234" ? 0 : 2;
});

TEST_F(PortHandoff, UsesNoFifoOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a FIFO of somebody else's";
  ChildProgram child = StartRole("meets a stranger's fifo");
  EXPECT_EQ(child.ReadOutput(), Refusal(path_));
  EXPECT_EQ(child.Wait(), 0) << "something was read or written";
}

// ---- Signals

std::atomic<int> signals_seen{0};

const Role kReadsUnderSignals("reads under signals", [](const std::string&) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++signals_seen; };
  sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART: blocking calls end with EINTR
  const pthread_t reader = pthread_self();
  const auto interrupt = [reader] {
    for (int i = 0; i < 20; ++i) {
      const int before = signals_seen;
      pthread_kill(reader, SIGUSR1);
      mivo_test::Eventually([&] { return signals_seen > before; });
    }
  };
  const std::string path = CreatePortPipe();
  std::thread writer([&] {
    interrupt();  // while it opens
    std::ofstream fifo(path);
    interrupt();  // while it reads
    fifo << "43210" << std::flush;
  });
  const std::string port = ReadPortPipe();
  writer.join();
  return port == "43210" ? 0 : 1;
});

TEST_F(PortHandoff, IsNotMisledBySignals) {
  EXPECT_EQ(StartRole("reads under signals").Wait(), 0);
}

// ---- From process to process

const Role kForksAWriter("forks a writer", [](const std::string&) {
  CreatePortPipe();
  const pid_t child = fork();
  if (child == 0) _exit(WritePortPipe(51515) ? 0 : 1);
  const std::string port = ReadPortPipe();
  int status = -1;
  waitpid(child, &status, 0);
  return port == "51515" && status == 0 ? 0 : 1;
});

TEST_F(PortHandoff, CarriesAPortFromAForkedChildToItsParent) {
  ChildProgram parent = StartRole("forks a writer");
  const std::string output = parent.ReadOutput();
  EXPECT_EQ(parent.Wait(), 0) << output;
  EXPECT_NE(output.find("write port to pipe: 51515\nwrite port to pipe: 51515\n"), std::string::npos) << output;
  EXPECT_NE(output.find("server port: 51515\n"), std::string::npos) << output;
}

}  // namespace
