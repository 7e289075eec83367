#include "calls/diagnostics.h"

#include <gtest/gtest.h>
#include <mivo/handler.h>
#include <mivo/params.h>
#include <unistd.h>

#include <atomic>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/handler_scope.h"
#include "support/handlers.h"
#include "support/stdout_capture.h"

namespace mivo {
namespace {

using mivo_test::LambdaMethod;
using mivo_test::StdoutCapture;

std::string TextOf(const MIVOParams* params) {
  return params->GetValue(0)->GetString();
}

TEST(Diagnostics, PrintsDebugLinesFromTheStart) {
  Diagnostics print(nullptr);
  const StdoutCapture out;
  print.Debug("runing %d .....\n", 5);
  // Seen without any flush of ours.
  EXPECT_EQ(out.Text(), "runing 5 .....\n");
}

TEST(Diagnostics, IsSilentAboutTheCourseOfThingsAtLevelZeroAndBelow) {
  Diagnostics print(nullptr);
  const StdoutCapture out;
  for (const int level : {0, -1, -2147483647 - 1}) {
    print.SetLevel("", level);
    print.Debug("debug\n");
    EXPECT_EQ(out.Text(), "") << level;
  }
  for (const int level : {1, 2147483647}) {
    print.SetLevel("", level);
    print.Debug("%d\n", level);
  }
  EXPECT_EQ(out.Text(), "1\n2147483647\n");
}

TEST(Diagnostics, PrintsErrorsAtAnyLevel) {
  Diagnostics print(nullptr);
  const StdoutCapture out;
  print.Error("at %d\n", 1);
  print.SetLevel("", 0);
  print.Error("at %d\n", 0);
  print.SetLevel("", -1);
  print.Error("at %d\n", -1);
  EXPECT_EQ(out.Text(), "at 1\nat 0\nat -1\n");
}

TEST(Diagnostics, AnswersWhetherALogTextWasGivenAndNeverPrintsIt) {
  Diagnostics print(nullptr);
  const StdoutCapture out;
  EXPECT_EQ(print.SetLevel("some/path", 1), 1);
  EXPECT_EQ(print.SetLevel("x", 0), 1);
  EXPECT_EQ(print.SetLevel("", 1), 0);
  EXPECT_EQ(print.SetLevel(nullptr, 1), 0);
  print.Debug("line\n");
  EXPECT_EQ(out.Text(), "line\n");
}

TEST(Diagnostics, HasALevelOfItsOwn) {
  Diagnostics silent(nullptr);
  Diagnostics loud(nullptr);
  silent.SetLevel("", 0);
  const StdoutCapture out;
  silent.Debug("silent\n");
  loud.Debug("loud\n");
  EXPECT_EQ(out.Text(), "loud\n");
}

TEST(Diagnostics, CutsALineTo1023Characters) {
  Diagnostics print(nullptr);
  const std::string most(1023, 'x');
  const std::string more(5000, 'x');
  {
    const StdoutCapture out;
    print.Debug("%s", most.c_str());
    EXPECT_EQ(out.Text(), most);
  }
  {
    const StdoutCapture out;
    print.Debug("%s\n", more.c_str());
    EXPECT_EQ(out.Text(), most);
  }
  {
    const StdoutCapture out;
    print.Error("%s\n", more.c_str());
    EXPECT_EQ(out.Text(), most);
  }
  const StdoutCapture out;
  PrintDirect("%s\n", more.c_str());
  EXPECT_EQ(out.Text(), most);
}

TEST(Diagnostics, PrintsPercentSignsOfItsArgumentsAsTheyAre) {
  Diagnostics print(nullptr);
  const StdoutCapture out;
  print.Debug("cant connect: %s \n", "%s%n%d");
  EXPECT_EQ(out.Text(), "cant connect: %s%n%d \n");
}

TEST(Diagnostics, SwitchesTheStreamsOffStdio) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // In a process of its own: this cannot be taken back.
  EXPECT_EXIT(
      {
        Diagnostics print(nullptr);
        print.SetLevel("", 1);
        print.SetLevel("", 1);
        _exit(std::ios_base::sync_with_stdio(true) ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Diagnostics, KeepsTheLinesOfSeveralThreadsWhole) {
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  Diagnostics print(nullptr);
  const StdoutCapture out;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&print, i] {
      const std::string text(100, static_cast<char>('a' + i));
      for (int line = 0; line < kLines; ++line) {
        if (line % 3 == 0) {
          PrintDirect("%s\n", text.c_str());
        } else if (line % 3 == 1) {
          print.Error("%s\n", text.c_str());
        } else {
          print.Debug("%s\n", text.c_str());
        }
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::istringstream lines(out.Text());
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    ASSERT_EQ(line, std::string(100, line.empty() ? '?' : line.front()));
    ++count;
  }
  EXPECT_EQ(count, kThreads * kLines);
}

TEST(Diagnostics, GivesItsLinesToASinkInPlaceOfStandardOutput) {
  Diagnostics print(nullptr);
  std::vector<std::string> lines;
  LambdaMethod sink([&](int client_id, MIVOParams* request, MIVOParams* reply) {
    EXPECT_EQ(client_id, 0);
    EXPECT_EQ(reply, nullptr);
    ASSERT_EQ(request->ParamsSize(), 1);
    EXPECT_EQ(request->MapSize(), 0);
    EXPECT_TRUE(request->GetValue(0)->IsString());
    lines.push_back(TextOf(request));
  });
  EXPECT_EQ(print.sink().Get(), nullptr);
  print.sink().Set(&sink);
  EXPECT_EQ(print.sink().Get(), &sink);
  const StdoutCapture out;
  print.Debug("debug %d\n", 1);
  print.Error("error\n");
  EXPECT_EQ(lines, (std::vector<std::string>{"debug 1\n", "error\n"}));
  EXPECT_EQ(out.Text(), "");
  PrintDirect("direct\n");
  EXPECT_EQ(out.Text(), "direct\n");
}

TEST(Diagnostics, GivesASinkNoLineThatItsLevelSilences) {
  Diagnostics print(nullptr);
  int lines = 0;
  LambdaMethod sink([&](int, MIVOParams*, MIVOParams*) { ++lines; });
  print.sink().Set(&sink);
  print.SetLevel("", 0);
  print.Debug("debug\n");
  EXPECT_EQ(lines, 0);
  print.Error("error\n");
  EXPECT_EQ(lines, 1);
}

TEST(Diagnostics, CutsALineForASinkToo) {
  Diagnostics print(nullptr);
  std::string line;
  LambdaMethod sink([&](int, MIVOParams* request, MIVOParams*) { line = TextOf(request); });
  print.sink().Set(&sink);
  print.Error("%s\n", std::string(5000, 'x').c_str());
  EXPECT_EQ(line, std::string(1023, 'x'));
}

TEST(Diagnostics, ReturnsToStandardOutputWithoutASink) {
  Diagnostics print(nullptr);
  LambdaMethod sink([](int, MIVOParams*, MIVOParams*) { ADD_FAILURE() << "called"; });
  print.sink().Set(&sink);
  print.sink().Set(nullptr);
  const StdoutCapture out;
  print.Debug("line\n");
  EXPECT_EQ(out.Text(), "line\n");
}

TEST(Diagnostics, PrintsTheLinesThatASinkCauses) {
  Diagnostics print(nullptr);
  Diagnostics other(nullptr);
  std::vector<std::string> lines;
  LambdaMethod sink([&](int, MIVOParams* request, MIVOParams*) {
    lines.push_back(TextOf(request));
    print.Error("nested\n");
    other.Error("nested in another\n");
  });
  print.sink().Set(&sink);
  other.sink().Set(&sink);
  const StdoutCapture out;
  print.Error("first\n");
  other.Error("second\n");
  EXPECT_EQ(lines, (std::vector<std::string>{"first\n", "second\n"}));
  EXPECT_EQ(out.Text(), "nested\nnested in another\nnested\nnested in another\n");
}

TEST(Diagnostics, ReportsWhatASinkThrowsAndUsesItAgain) {
  Diagnostics print(nullptr);
  int calls = 0;
  LambdaMethod sink([&](int, MIVOParams*, MIVOParams*) {
    if (++calls == 1) throw std::runtime_error("no room");
    if (calls == 2) throw 5;
  });
  print.sink().Set(&sink);
  const StdoutCapture out;
  print.Error("one\n");
  EXPECT_EQ(out.Text(), "handler s_c_log: no room\n");
  print.Error("two\n");
  EXPECT_EQ(out.Text(), "handler s_c_log: no room\nhandler s_c_log: unknown exception\n");
  print.Error("three\n");
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(out.Count("\n"), 2);
}

TEST(Diagnostics, WritesControlCharactersInWhatASinkThrowsAsNumbers) {
  Diagnostics print(nullptr);
  LambdaMethod sink([](int, MIVOParams*, MIVOParams*) { throw std::runtime_error("no\nroom"); });
  print.sink().Set(&sink);
  const StdoutCapture out;
  print.Error("one\n");
  EXPECT_EQ(out.Text(), "handler s_c_log: no\\x0aroom\n");
}

TEST(Diagnostics, CountsASinkAsAHandlerOfItsOwner) {
  const int owner = 0;
  Diagnostics print(&owner);
  bool inside = false;
  LambdaMethod sink([&](int, MIVOParams*, MIVOParams*) { inside = HandlerScope::Inside(&owner); });
  print.sink().Set(&sink);
  print.Error("line\n");
  EXPECT_TRUE(inside);
  EXPECT_FALSE(HandlerScope::Inside(&owner));
}

TEST(Diagnostics, ServesSeveralThreadsWithOneSink) {
  Diagnostics print(nullptr);
  std::atomic<int> lines{0};
  LambdaMethod sink([&](int, MIVOParams*, MIVOParams*) { ++lines; });
  print.sink().Set(&sink);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < 100; ++line)
        print.Error("line\n");
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(lines, 400);
}

}  // namespace
}  // namespace mivo
