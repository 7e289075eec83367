#include <mivo/mivo.h>

#include "support/child_program.h"
#include "support/event.h"
#include "support/test_client.h"
#include "support/transport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

// The program beside the tests, in a process of its own.
ChildProgram StartHost(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), MIVO_TEST_HOST_PROGRAM);
  return ChildProgram(arguments);
}

// True once the text has been printed, while the process lives.
bool Prints(ChildProgram* program, const std::string& text) {
  std::string printed;
  while (printed.find(text) == std::string::npos) {
    const auto byte = program->io().ReadBytes(1);
    if (!byte) return false;
    printed += *byte;
  }
  return true;
}

int Count(const std::string& all, const std::string& text) {
  int count = 0;
  for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
    ++count;
  return count;
}

class HostProcess : public testing::TestWithParam<Transport> {
 protected:
  static std::string Number() { return std::to_string(static_cast<int>(GetParam())); }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, HostProcess, kEveryTransport, TransportName);

TEST(HostProgram, KeepsItsSignalsUmaskLocaleEnvironmentAndFolder) {
  for (const char* mode : {"settings", "settings-ignoring"}) {
    ChildProgram program = StartHost({mode});
    const std::string printed = program.ReadOutput();
    EXPECT_EQ(program.Wait(), 0) << printed;
  }
}

TEST(HostProgram, MayUseTheLibraryInStaticConstructorsAndDestructors) {
  ChildProgram program = StartHost({"statics"});
  const std::string printed = program.ReadOutput();
  EXPECT_EQ(program.Wait(), 0) << printed;
  EXPECT_EQ(Count(printed, "used\n"), 2);
}

TEST(HostProgram, MayUseTheLibraryForTheFirstTimeAtExit) {
  ChildProgram program = StartHost({"atexit"});
  const std::string printed = program.ReadOutput();
  EXPECT_EQ(program.Wait(), 0) << printed;
  EXPECT_EQ(Count(printed, "used\n"), 1);
}

TEST_P(HostProcess, MayEndWithEverythingAlive) {
  for (int i = 0; i < 3; ++i) {
    ChildProgram program = StartHost({"leave", Number()});
    const std::string printed = program.ReadOutput();
    EXPECT_EQ(program.Wait(), 0) << printed;
  }
}

TEST_P(HostProcess, MayEndWithCallersWaiting) {
  for (int i = 0; i < 3; ++i) {
    ChildProgram program = StartHost({"leave-calling", Number()});
    const std::string printed = program.ReadOutput();
    EXPECT_EQ(program.Wait(), 0) << printed;
  }
}

TEST_P(HostProcess, ServesAClientOfAnotherProcess) {
  const Address address = FreeAddress(GetParam());
  ChildProgram program = StartHost({"serve", Number(), address.name});
  ASSERT_TRUE(Prints(&program, "ready\n"));
  TestClient client;
  ASSERT_TRUE(client.Init(address));
  EXPECT_EQ(TakeInt(client->SendMsg("six", nullptr, 0, 60000)), 6);
  program.io().HalfClose();
  EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
  EXPECT_EQ(program.Wait(), 0);
}

TEST_P(HostProcess, AKilledServerIsNoticedAndCanBeReplaced) {
  const Address address = FreeAddress(GetParam());
  TestClient client;
  for (int life = 0; life < 2; ++life) {
    ChildProgram program = StartHost({"serve", Number(), address.name});
    ASSERT_TRUE(Prints(&program, "ready\n"));
    ASSERT_TRUE(client.Init(address));
    EXPECT_EQ(TakeInt(client->SendMsg("six", nullptr, 0, 60000)), 6);
    kill(program.pid(), SIGKILL);
    EXPECT_EQ(program.Wait(), 128 + SIGKILL);
    EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
    EXPECT_FALSE(client.Init(address));
  }
}

TEST(HostProgram, SeesALineInItsPipeAtOnce) {
  ChildProgram program = StartHost({"print"});
  EXPECT_TRUE(Prints(&program, "send msg: disconnect... .. .\n"));
  program.io().HalfClose();
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
