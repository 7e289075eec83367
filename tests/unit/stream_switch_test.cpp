#include "base/stream_switch.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ios>
#include <iostream>
#include <string>
#include <thread>

#include "support/child_program.h"
#include "support/event.h"

namespace mivo {
namespace {

using mivo_test::ChildProgram;
using mivo_test::Role;
using mivo_test::StartRole;

// Each in a process of its own: the switch cannot be taken back, and asking is switching.
bool IsSwitched() {
  return !std::ios_base::sync_with_stdio(true);
}

const Role kSwitches("switches the streams", [](const std::string&) {
  if (!SwitchStreamsOffStdio() || !SwitchStreamsOffStdio()) return 1;
  std::cout << "still works\n" << std::flush;
  return IsSwitched() ? 0 : 2;
});

TEST(StreamSwitch, SwitchesOnce) {
  ChildProgram program = StartRole("switches the streams");
  EXPECT_EQ(program.ReadOutput(), "still works\n");
  EXPECT_EQ(program.Wait(), 0);
}

const Role kReads("reads meanwhile", [](const std::string&) {
  int number = 0;
  std::thread reader([&] { std::cin >> number; });
  // Inside the read once it has the lock.
  const bool reading = mivo_test::Eventually([] {
    if (ftrylockfile(stdin) != 0) return true;
    funlockfile(stdin);
    return false;
  });
  if (!reading) return 1;
  if (SwitchStreamsOffStdio()) return 2;
  std::printf("not yet\n");
  std::fflush(stdout);
  reader.join();
  if (number != 42) return 3;
  // The rest of the input has been read ahead.
  if (SwitchStreamsOffStdio()) return 4;
  if (std::cin.get() != '\n' || !(std::cin >> number) || number != 43 || std::cin.get() != '\n') return 5;
  if (!SwitchStreamsOffStdio()) return 6;
  return IsSwitched() ? 0 : 7;
});

TEST(StreamSwitch, NeitherWaitsForAThreadThatReadsNorLosesInput) {
  ChildProgram program = StartRole("reads meanwhile");
  EXPECT_EQ(program.io().ReadBytes(8), "not yet\n");
  EXPECT_TRUE(program.io().SendBytes("42\n43\n"));
  EXPECT_EQ(program.Wait(), 0);
}

const Role kPrints("prints meanwhile", [](const std::string&) {
  mivo_test::Event held;
  mivo_test::Event release;
  std::thread printer([&] {
    flockfile(stdout);
    held.Signal();
    release.WaitFor();
    funlockfile(stdout);
  });
  if (!held.WaitFor()) return 1;
  const bool switched = SwitchStreamsOffStdio();
  release.Signal();
  printer.join();
  if (switched) return 2;
  return SwitchStreamsOffStdio() ? 0 : 3;
});

TEST(StreamSwitch, DoesNotWaitForAThreadThatPrints) {
  ChildProgram program = StartRole("prints meanwhile");
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
}  // namespace mivo
