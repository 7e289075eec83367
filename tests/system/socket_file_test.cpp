// The file of a local socket: whose it is, who may use it, and when it goes.
#include <mivo/mivo.h>

#include "support/stdout_capture.h"
#include "support/test_server.h"
#include "support/uv_faults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <uv.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

using namespace mivo_test;

namespace {

class SocketFile : public testing::Test {
 protected:
  ~SocketFile() override {
    for (const std::string& path : {path_, aside_, victim_}) {
      unlink(path.c_str());
      rmdir(path.c_str());
    }
  }

  static struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  static bool Exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
  }

  bool IsSocket() const { return Exists(path_) && S_ISSOCK(StatusOf(path_).st_mode); }

  static void MakeFile(const std::string& path) { close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)); }

  // Nobody listens there any more.
  void MakeDeadSocket() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    const int dead = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(dead, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(dead);
  }

  // Somebody is quick: a link to their victim in the place of the socket.
  void PutLinkInItsPlace() const {
    EXPECT_EQ(rename(path_.c_str(), aside_.c_str()), 0);
    EXPECT_EQ(symlink(victim_.c_str(), path_.c_str()), 0);
  }

  std::unique_ptr<TestServer> MakeServer() const { return std::make_unique<TestServer>(address_); }

  const Address address_ = FreeAddress(Transport::Local);
  const std::string path_ = SocketPath(address_.name);
  const std::string aside_ = path_ + ".aside";
  const std::string victim_ = path_ + ".victim";
};

TEST_F(SocketFile, GoesWithItsServer) {
  const auto server = MakeServer();
  ASSERT_TRUE(server->Init());
  EXPECT_TRUE(IsSocket());
  server->Destroy();
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SocketFile, GoesWhenListeningFails) {
  const auto server = MakeServer();
  const ScopedFault fault(Fault::kListenCall, 1, 1, UV_ENOBUFS);
  EXPECT_FALSE(server->Init());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SocketFile, OfADeadServerIsReplaced) {
  MakeDeadSocket();
  ASSERT_TRUE(IsSocket());
  const auto server = MakeServer();
  ASSERT_TRUE(server->Init());
  EXPECT_TRUE(server->Connect().AnswersInOrder());
}

TEST_F(SocketFile, StaysWhenAnotherServerHasTakenTheName) {
  const auto first = MakeServer();
  ASSERT_TRUE(first->Init());
  RawPeer early = first->Connect();
  ASSERT_TRUE(early.AnswersInOrder());
  const auto second = MakeServer();
  ASSERT_TRUE(second->Init());
  const auto third = MakeServer();
  ASSERT_TRUE(third->Init());
  const ino_t thirds = StatusOf(path_).st_ino;
  EXPECT_TRUE(early.AnswersInOrder()) << "who is connected stays";
  for (const auto* ended : {&second, &first}) {
    (*ended)->Destroy();
    ASSERT_TRUE(IsSocket());
    EXPECT_EQ(StatusOf(path_).st_ino, thirds);
    EXPECT_TRUE(third->Connect().AnswersInOrder());
  }
  third->Destroy();
  EXPECT_FALSE(Exists(path_));
}

TEST_F(SocketFile, StaysWhenItIsNoLongerTheServers) {
  const auto server = MakeServer();
  ASSERT_TRUE(server->Init());
  ASSERT_EQ(unlink(path_.c_str()), 0);
  MakeFile(path_);
  server->Destroy();
  EXPECT_TRUE(Exists(path_));
}

TEST_F(SocketFile, IsNotPutInThePlaceOfWhatIsNoSocket) {
  struct Kind {
    const char* name;
    std::function<void()> make;
  };
  const Kind kinds[] = {
      {"file", [this] { MakeFile(path_); }},
      {"folder", [this] { mkdir(path_.c_str(), 0700); }},
      {"FIFO", [this] { mkfifo(path_.c_str(), 0600); }},
      {"link into the void", [this] { EXPECT_EQ(symlink(victim_.c_str(), path_.c_str()), 0); }},
      {"link to a socket",
       [this] {
         MakeDeadSocket();
         EXPECT_EQ(rename(path_.c_str(), aside_.c_str()), 0);
         EXPECT_EQ(symlink(aside_.c_str(), path_.c_str()), 0);
       }},
  };
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.name);
    kind.make();
    const struct stat before = StatusOf(path_);
    {
      const auto server = MakeServer();
      const StdoutCapture output;
      EXPECT_FALSE(server->Init());
      EXPECT_EQ(output.Count("Bind error: EADDRINUSE\n"), 1);
    }
    const struct stat after = StatusOf(path_);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_FALSE(Exists(victim_));
    unlink(path_.c_str());
    rmdir(path_.c_str());
  }
}

TEST_F(SocketFile, IsOpenToEverybodyWhateverTheUmask) {
  const mode_t before = umask(077);
  const auto server = MakeServer();
  const bool listens = server->Init();
  const mode_t during = umask(before);
  ASSERT_TRUE(listens);
  EXPECT_EQ(during, 077U) << "the umask is the program's";
  EXPECT_EQ(StatusOf(path_).st_mode & 07777U, 0777U);
}

TEST_F(SocketFile, BelongsToUserAndGroupOneThousand) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may give a file away";
  const auto server = MakeServer();
  ASSERT_TRUE(server->Init());
  EXPECT_EQ(StatusOf(path_).st_uid, 1000U);
  EXPECT_EQ(StatusOf(path_).st_gid, 1000U);
}

TEST_F(SocketFile, IsTheOneWhoseModeIsSetWhateverStandsInItsPlace) {
  MakeFile(victim_);
  const auto server = MakeServer();
  {
    const ScopedHook hook(Fault::kChmod, [this] { PutLinkInItsPlace(); });
    ASSERT_TRUE(server->Init());
  }
  EXPECT_EQ(StatusOf(victim_).st_mode & 07777U, 0600U);
  EXPECT_EQ(StatusOf(aside_).st_mode & 07777U, 0777U);
}

TEST_F(SocketFile, IsTheOneThatIsGivenAwayWhateverStandsInItsPlace) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may give a file away";
  MakeFile(victim_);
  const auto server = MakeServer();
  {
    const ScopedHook hook(Fault::kChown, [this] { PutLinkInItsPlace(); });
    ASSERT_TRUE(server->Init());
  }
  EXPECT_EQ(StatusOf(victim_).st_uid, geteuid());
  EXPECT_EQ(StatusOf(aside_).st_uid, 1000U);
}

TEST_F(SocketFile, MayStayAsItWasMade) {
  const auto server = MakeServer();
  const StdoutCapture output;
  const ScopedFault chmod_fails(Fault::kChmod, 1, 1, -EPERM);
  const ScopedFault chown_fails(Fault::kChown, 1, 1, -EPERM);
  ASSERT_TRUE(server->Init());
  EXPECT_EQ(chmod_fails.failures(), 1);
  EXPECT_EQ(chown_fails.failures(), 1);
  EXPECT_TRUE(output.Contains("chmod failedchown error"));
  EXPECT_TRUE(server->Connect().AnswersInOrder());
}

}  // namespace
