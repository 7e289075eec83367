// Forks while other threads are inside the plain TCP server's and the port hand-off's functions. The child has none of
// these threads, and nobody who would give back a lock that one of them holds.
#include <mivo/port_handoff.h>
#include <mivo/tcpserver.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 3;
constexpr int kForks = 150;
constexpr unsigned int kChildSeconds = 30;

// The end of a child that plays `part`; as waitpid tells it, 0 if the part went well.
int StatusOfChild(bool (*part)()) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildSeconds);
    _exit(part() ? 0 : 1);
  }
  int status = -1;
  return child > 0 && waitpid(child, &status, 0) == child ? status : -1;
}

// `busy` is repeated by several threads meanwhile. It must not allocate memory: of what an allocator does at a fork,
// nothing is to be found out here.
void ExpectChildrenPlay(bool (*part)(), const std::function<void()>& busy) {
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      while (!over)
        busy();
    });
  }
  int status = 0;
  for (int i = 0; i < kForks && status == 0; ++i)
    status = StatusOfChild(part);
  over = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(status, 0) << (WIFSIGNALED(status) ? "ended by a signal" : "failed");
}

bool ServesAndCloses() {
  uv_loop_t loop;
  if (uv_loop_init(&loop) != 0) return false;
  {
    CTcpServer server(&loop);
    if (!server.Init() || !server.BindTcp4("127.0.0.1", 0) || !server.Listen(1)) return false;
    server.Run(UV_RUN_NOWAIT);
  }
  return uv_loop_close(&loop) == 0;
}

TEST(ForkedChild, HasAPlainTcpServerWhateverThreadsOfItsParentDoWithTheirs) {
  ExpectChildrenPlay(ServesAndCloses, [] {
    thread_local struct Loop {
      Loop() { uv_loop_init(&uv); }
      ~Loop() { uv_loop_close(&uv); }
      uv_loop_t uv;
    } loop;
    CTcpServer idle(&loop.uv);
    idle.Run(UV_RUN_NOWAIT);
  });
}

TEST(ForkedChild, HasAPortHandoffWhateverThreadsOfItsParentDoWithTheirs) {
  // Nobody has named a FIFO in this process: nothing is opened, and nothing waits.
  const auto reads_nothing = [] { return ReadPortPipe().empty(); };
  ExpectChildrenPlay(reads_nothing, [] { ReadPortPipe(); });
}

}  // namespace
