#include "transport/framed_write.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/sigpipe_guard.h"
#include "loop/handle.h"
#include "support/golden.h"
#include "support/stdout_capture.h"
#include "support/uv_faults.h"
#include "unit/live_bytes.h"
#include "unit/payload.h"
#include "unit/stream_pair.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::Framed;
using mivo_test::ScopedFault;
using mivo_test::StdoutCapture;
using mivo_test::StreamPair;

std::vector<Frame> Frames(const std::vector<std::string>& payloads) {
  std::vector<Frame> frames;
  for (const std::string& payload : payloads)
    frames.emplace_back(payload);
  return frames;
}

class Stream {
 public:
  Stream() {
    handle_.Open(nullptr, [this](uv_pipe_t* pipe) { return uv_pipe_init(loop_.uv(), pipe, 0); });
    EXPECT_EQ(uv_pipe_open(handle_.get(), pair_.TakeOurs()), 0);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  int Write(const std::vector<std::string>& payloads) { return FramedWrite(uv(), Frames(payloads)); }

  // Runs the loop until the peer has `size` bytes.
  std::string ReadAll(std::size_t size) {
    std::string bytes;
    loop_.RunUntil([&] {
      bytes += pair_.ReadSome();
      return bytes.size() >= size;
    });
    return bytes;
  }

  uv_stream_t* uv() { return reinterpret_cast<uv_stream_t*>(handle_.get()); }
  TestLoop& loop() { return loop_; }
  StreamPair& peer() { return pair_; }
  Handle<uv_pipe_t>& handle() { return handle_; }

 private:
  TestLoop loop_;
  StreamPair pair_ = StreamPair::Local();
  Handle<uv_pipe_t> handle_;
};

TEST(FramedWrite, PutsTheLengthBeforeThePayload) {
  Stream stream;
  EXPECT_EQ(stream.Write({"payload"}), 0);
  EXPECT_EQ(stream.ReadAll(11), mivo_test::FromHex("07 00 00 00") + "payload");
}

TEST(FramedWrite, WritesAFrameWithoutContent) {
  Stream stream;
  EXPECT_EQ(stream.Write({""}), 0);
  EXPECT_EQ(stream.ReadAll(4), std::string(4, '\0'));
}

TEST(FramedWrite, WritesSeveralFramesInOneRequestAndInOrder) {
  Stream stream;
  const ScopedFault count_only(Fault::kWrite, 1, 0, 0);
  EXPECT_EQ(stream.Write({"one", "", "three"}), 0);
  EXPECT_EQ(count_only.calls(), 1);
  const std::string expected = Framed("one") + Framed("") + Framed("three");
  EXPECT_EQ(stream.ReadAll(expected.size()), expected);
}

TEST(FramedWrite, WritesMoreThanTheKernelTakesAtOnce) {
  Stream stream;
  const StdoutCapture out;
  const std::string first(3000000, 'a');
  const std::string second(2000000, 'b');
  EXPECT_EQ(stream.Write({first}), 0);
  EXPECT_EQ(stream.Write({second, "tail"}), 0);
  const std::string expected = Framed(first) + Framed(second) + Framed("tail");
  EXPECT_TRUE(stream.ReadAll(expected.size()) == expected);
  EXPECT_EQ(out.Text(), "");
}

TEST(FramedWrite, SucceedsWhenOneOfFourTriesDoes) {
  for (int failures = 0; failures <= 3; ++failures) {
    Stream stream;
    const StdoutCapture out;
    const ScopedFault fault(Fault::kWrite, 1, failures, UV_EAGAIN);
    EXPECT_GE(stream.Write({"payload"}), 0) << failures;
    EXPECT_EQ(fault.calls(), failures + 1);
    EXPECT_EQ(stream.ReadAll(11), Framed("payload")) << failures;
    EXPECT_EQ(out.Text(), "") << failures;
  }
}

TEST(FramedWrite, PausesAMillisecondBetweenTries) {
  Stream stream;
  const ScopedFault fault(Fault::kWrite, 1, 3, UV_EAGAIN);
  EXPECT_GE(stream.Write({"payload"}), 0);
  const auto times = fault.times();
  ASSERT_EQ(times.size(), 4U);
  for (std::size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], std::chrono::milliseconds(1)) << i;
  }
}

TEST(FramedWrite, DropsTheMessageAfterFourTriesAndSaysSo) {
  Stream stream;
  const StdoutCapture out;
  {
    const ScopedFault fault(Fault::kWrite, 1, 100, UV_ENOMEM);
    EXPECT_EQ(stream.Write({"dropped"}), UV_ENOMEM);
    EXPECT_EQ(fault.calls(), 4);
  }
  EXPECT_EQ(out.Text(), "write error\n");
  // The stream is as it was.
  EXPECT_EQ(stream.Write({"next"}), 0);
  EXPECT_EQ(stream.ReadAll(8), Framed("next"));
  EXPECT_EQ(out.Text(), "write error\n");
}

TEST(FramedWrite, SaysSoForEveryFrameThatItDrops) {
  Stream stream;
  const StdoutCapture out;
  const ScopedFault fault(Fault::kWrite, 1, 4, UV_ENOMEM);
  EXPECT_EQ(stream.Write({"a", "b", "c"}), UV_ENOMEM);
  EXPECT_EQ(out.Text(), "write error\nwrite error\nwrite error\n");
}

TEST(FramedWrite, ReturnsTheLastOfFourErrors) {
  Stream stream;
  const StdoutCapture out;
  stream.handle().Close();
  // A closing handle has no descriptor any more, but its block lives until the loop has turned.
  Handle<uv_pipe_t> closed;
  closed.Open(nullptr, [&](uv_pipe_t* pipe) { return uv_pipe_init(stream.loop().uv(), pipe, 0); });
  uv_pipe_t* const block = closed.get();
  closed.Close();
  EXPECT_EQ(FramedWrite(reinterpret_cast<uv_stream_t*>(block), Frames({"late"})), UV_EBADF);
  EXPECT_EQ(out.Text(), "write error\n");
}

TEST(FramedWrite, HoldsNoMemoryOfWhatItDropped) {
  Stream stream;
  const StdoutCapture out;
  const ScopedFault fault(Fault::kWrite, 1, 1000, UV_ENOMEM);
  const std::string large(1000000, 'x');
  stream.Write({large});
  const std::size_t before = mivo_test::LiveBytes();
  for (int i = 0; i < 5; ++i)
    stream.Write({large});
  EXPECT_LT(mivo_test::LiveBytes(), before + large.size());
}

TEST(FramedWrite, HoldsNoMemoryOfWhatItHasWritten) {
  Stream stream;
  const std::string large(1000000, 'x');
  stream.Write({large});
  stream.ReadAll(large.size() + 4);
  stream.loop().RunUntil([&] { return uv_stream_get_write_queue_size(stream.uv()) == 0; });
  const std::size_t before = mivo_test::LiveBytes();
  for (int i = 0; i < 5; ++i) {
    stream.Write({large});
    stream.ReadAll(large.size() + 4);
  }
  EXPECT_TRUE(stream.loop().RunUntil([&] { return mivo_test::LiveBytes() < before + large.size(); }));
}

TEST(FramedWrite, ReportsAWriteThatFailsLaterOnceForEachOfItsFrames) {
  const SigpipeGuard guard;
  Stream stream;
  const StdoutCapture out;
  const std::string large(3000000, 'x');
  EXPECT_EQ(stream.Write({large, "second"}), 0);
  stream.peer().ClosePeer();
  const std::string line = std::string("Write error: ") + uv_strerror(UV_EPIPE) + "\n";
  EXPECT_TRUE(stream.loop().RunUntil([&] { return out.Count("\n") == 2; }));
  EXPECT_EQ(out.Text(), line + line);
}

TEST(FramedWrite, ReportsAWriteThatItsCloseHasCutOff) {
  Stream stream;
  const StdoutCapture out;
  EXPECT_EQ(stream.Write({std::string(3000000, 'x')}), 0);
  stream.handle().Close();
  const std::string line = std::string("Write error: ") + uv_strerror(UV_ECANCELED) + "\n";
  EXPECT_TRUE(stream.loop().RunUntil([&] { return out.Count("\n") == 1; }));
  EXPECT_EQ(out.Text(), line);
}

}  // namespace
}  // namespace mivo
