// Objects of the typed layer in a child of fork: they end without a word, and the parent's go on.
#include <mivo/rpc.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "support/sanitizers.h"
#include "support/transport.h"

namespace {

constexpr unsigned int kChildSeconds = 5 * mivo_test::kSlowdown;

TEST(RpcFork, ItsChildMayDestroyWhatIsTheParents) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer does not follow the locks of a child of fork";
#endif
  const std::string address = "unix:" + mivo_test::UniqueSocketName();
  auto in_order = std::make_unique<mivo::Serial>();
  auto server = std::make_unique<mivo::Server>();
  server->on("one", [] { return 1; });
  server->on("two", (*in_order)([] { return 2; }));
  server->listen(address);
  mivo::ClientOptions options;
  options.reconnect = true;
  auto client = std::make_unique<mivo::Client>(address);
  auto returning = std::make_unique<mivo::Client>(address, options);
  ASSERT_EQ(client->call<int>("one") + returning->call<int>("two"), 3);

  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildSeconds);
    const bool has_failed = !client->try_call<int>("one");
    client.reset();
    returning.reset();
    server.reset();
    in_order.reset();
    _exit(has_failed ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(client->call<int>("one") + returning->call<int>("two"), 3);
}

}  // namespace
