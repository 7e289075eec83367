// Starts in processes that have only a few descriptors left.
#include <mivo/mivo.h>

#include "support/child_program.h"
#include "support/test_client.h"
#include "support/test_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

constexpr int kTableSize = 64;
constexpr int kRounds = 6;
// What the child says by its exit status: this and the number of rounds that worked. Anything else is a failure.
constexpr int kFine = 20;

// The process has `count` descriptors left until it ends.
class FewDescriptors {
 public:
  explicit FewDescriptors(int count) {
    getrlimit(RLIMIT_NOFILE, &usual_);
    rlimit low = usual_;
    low.rlim_cur = kTableSize;
    setrlimit(RLIMIT_NOFILE, &low);
    for (int filler = dup(STDIN_FILENO); filler >= 0; filler = dup(STDIN_FILENO))
      fillers_.push_back(filler);
    for (int i = 0; i < count; ++i) {
      close(fillers_.back());
      fillers_.pop_back();
    }
  }
  ~FewDescriptors() {
    for (const int filler : fillers_)
      close(filler);
    setrlimit(RLIMIT_NOFILE, &usual_);
  }

 private:
  rlimit usual_{};
  std::vector<int> fillers_;
};

// Without opening one.
int CountOpen() {
  int count = 0;
  for (int descriptor = 0; descriptor < kTableSize; ++descriptor)
    count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

bool ServerStarts(const Address& address) {
  IServer* const server = CreateServer();
  std::string text;
  server->log(text.data(), 0);
  const bool works = InitServer(server, address);
  DestroyServer(server);
  return works;
}

bool ClientStarts(const Address& address) {
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  const bool works = InitClient(client, address);
  DestroyClient(client);
  return works;
}

// What a process makes once and keeps: libuv a pipe with the first loop, the library's pool a set of descriptors.
constexpr int kKept = 3;

// Argument: what is to be started, with how many descriptors, where.
const Role kStarter("starter", [](const std::string& argument) {
  std::istringstream words(argument);
  std::string what;
  int left = 0;
  int transport = 0;
  Address address;
  words >> what >> left >> transport >> address.name >> address.host;
  address.transport = static_cast<Transport>(transport);
  const auto starts = what == "server" ? ServerStarts : ClientStarts;
  int worked = 0;
  {
    const FewDescriptors few(left);
    const int before = CountOpen();
    for (int round = 0; round < kRounds; ++round) {
      worked += starts(address) ? 1 : 0;
      if (CountOpen() > before + kKept) return 2;
    }
  }
  if (!starts(address)) return 3;
  return kFine + worked;
});

int Start(const std::string& what, int left, const Address& address) {
  std::ostringstream argument;
  argument << what << ' ' << left << ' ' << static_cast<int>(address.transport) << ' ' << address.name << ' '
           << address.host;
  ChildProgram child = StartRole("starter", argument.str());
  child.ReadOutput();
  return child.Wait().value_or(-1);
}

class StartWithFewDescriptors : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors of its own, to look whether memory is there";
#endif
  }

  // Each number in a process of its own, for libuv needs more with its first loop.
  static void ExpectEachWorksOrFailsAndLosesNone(const std::string& what, const Address& address) {
    bool has_worked = false;
    for (int left = 0; left <= 12; ++left) {
      SCOPED_TRACE(what + " with " + std::to_string(left));
      const int told = Start(what, left, address);
      ASSERT_GE(told, kFine);
      ASSERT_LE(told, kFine + kRounds);
      EXPECT_TRUE(left > 0 || told == kFine);
      EXPECT_TRUE(!has_worked || told == kFine + kRounds) << "more is enough, too";
      has_worked = told == kFine + kRounds;
    }
    EXPECT_TRUE(has_worked);
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, StartWithFewDescriptors, kEveryTransport, TransportName);

TEST_P(StartWithFewDescriptors, OfAServerWorksOrFailsAndLosesNone) {
  ExpectEachWorksOrFailsAndLosesNone("server", FreeAddress(GetParam()));
}

TEST_P(StartWithFewDescriptors, OfAClientWorksOrFailsAndLosesNone) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  ExpectEachWorksOrFailsAndLosesNone("client", server.address());
}

}  // namespace
