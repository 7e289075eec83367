#include "transport/framed_write.h"

#include <memory>
#include <utility>

#include "transport/print_object.h"

namespace mivo {

namespace {

constexpr int kTries = 4;
constexpr unsigned int kPauseMs = 1;

// Lives from the write to its completion: libuv reads the frames in between.
struct WriteRequest {
  uv_write_t request{};
  std::vector<Frame> frames;
};

std::vector<uv_buf_t> BuffersOf(std::vector<Frame>& frames) {
  std::vector<uv_buf_t> buffers;
  buffers.reserve(2 * frames.size());
  for (Frame& frame : frames) {
    buffers.push_back(uv_buf_init(reinterpret_cast<char*>(&frame.length), kFramePrefixSize));
    if (!frame.payload.empty()) {
      buffers.push_back(uv_buf_init(frame.payload.data(), static_cast<unsigned int>(frame.payload.size())));
    }
  }
  return buffers;
}

void OnWritten(uv_write_t* request, int status) {
  const std::unique_ptr<WriteRequest> done(static_cast<WriteRequest*>(request->data));
  if (status >= 0) return;
  for (std::size_t i = 0; i < done->frames.size(); ++i)
    PrintDirect("Write error: %s\n", uv_strerror(status));
}

}  // namespace

int FramedWrite(uv_stream_t* stream, std::vector<Frame> frames) {
  auto write = std::make_unique<WriteRequest>();
  write->frames = std::move(frames);
  write->request.data = write.get();
  const std::vector<uv_buf_t> buffers = BuffersOf(write->frames);

  int status = 0;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    if (attempt > 0) uv_sleep(kPauseMs);
    status = uv_write(&write->request, stream, buffers.data(), static_cast<unsigned int>(buffers.size()), OnWritten);
    if (status >= 0) {
      static_cast<void>(write.release());
      return status;
    }
  }
  // The completion callback never runs for a refused request: it is ours to free.
  for (std::size_t i = 0; i < write->frames.size(); ++i)
    ReportDroppedFrame();
  return status;
}

void ReportDroppedFrame() {
  PrintDirect("write error\n");
}

}  // namespace mivo
