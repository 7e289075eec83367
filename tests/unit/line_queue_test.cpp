#include "base/line_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>

#include "support/background.h"
#include "support/output_channel.h"
#include "support/teardown.h"
#include "support/thread_state.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Channel;
using mivo_test::OutputChannel;
using mivo_test::Stopwatch;

constexpr std::chrono::milliseconds kMoment{50};

// 0 if there is none.
int IdOfItsThread() {
  for (const int id : mivo_test::Threads()) {
    std::ifstream file("/proc/self/task/" + std::to_string(id) + "/comm");
    std::string name;
    if (std::getline(file, name) && name == "mivo-lines") return id;
  }
  return 0;
}

TEST(LineQueue, IsEmptyAtOnceWhenNothingWaits) {
  OutputChannel out(Channel::Pipe);
  LineQueue queue;
  queue.Write("line\n");
  EXPECT_EQ(out.ReadNow(), "line\n");
  queue.AwaitEmpty(mivo_test::kPatience);
}

TEST(LineQueue, AwaitsAReaderForAsLongAsItIsToldAndNoLonger) {
  // Not on the stack: its thread may look at it after the lines are out.
  static LineQueue queue;
  OutputChannel out(Channel::Pipe);
  out.Fill();
  queue.Write("line\n");
  const Stopwatch watch;
  queue.AwaitEmpty(kMoment);
  EXPECT_GE(watch.ElapsedMs(), kMoment.count());
  Background<std::string> reader([&] { return out.ReadUntil("line\n"); });
  queue.AwaitEmpty(mivo_test::kPatience);
  const std::string text = reader.Get();
  EXPECT_EQ(text.substr(text.size() - 6), ".line\n");
}

TEST(LineQueue, IsBoundedByBytesToo) {
  static LineQueue queue;
  OutputChannel out(Channel::Pipe);
  out.Fill();
  const std::string line = std::string(1022, 'x') + "\n";
  const std::size_t fitting = LineQueue::kMaxBytes / line.size();
  ASSERT_LT(fitting + 100, LineQueue::kMaxLines);
  // One of them may be on its way already.
  for (std::size_t i = 0; i < fitting + 100; ++i)
    queue.Write(line);
  const std::string text = out.ReadUntil(" lines lost\n");
  const std::size_t note = text.rfind('\n', text.size() - 2) + 1;
  const std::size_t lost = std::stoul(text.substr(note));
  EXPECT_GE(lost, 98U);
  EXPECT_LE(lost, 100U);
  queue.AwaitEmpty(mivo_test::kPatience);
}

TEST(LineQueue, DoesNotLetALineOvertakeTheOneThatItsThreadIsAbout) {
  static LineQueue queue;
  OutputChannel out(Channel::Pipe);
  // Room for the short line only.
  out.FillBut(50);
  const std::string line = std::string(200, 'x') + "\n";
  queue.Write(line);
  int thread_id = 0;
  ASSERT_TRUE(mivo_test::Eventually([&thread_id] {
    thread_id = IdOfItsThread();
    return thread_id != 0;
  }));
  ASSERT_TRUE(mivo_test::WaitUntilAsleep(thread_id));
  queue.Write("short\n");
  std::string text = out.ReadUntil("xx\nshort\n", std::chrono::seconds(5));
  text.erase(0, text.find_first_not_of('.'));
  EXPECT_EQ(text, line + "short\n");
  queue.AwaitEmpty(mivo_test::kPatience);
}

}  // namespace
}  // namespace mivo
