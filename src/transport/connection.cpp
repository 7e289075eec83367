#include "transport/connection.h"

#include <unistd.h>

#include <utility>

#include "transport/framed_write.h"

namespace mivo {

int Connection::Adopt(int descriptor, Endpoint::Kind kind) {
  const bool is_local = kind == Endpoint::kLocal;
  int status = is_local ? OpenLocal() : OpenTcp();
  if (status >= 0) {
    status = is_local ? uv_pipe_open(pipe(), descriptor) : uv_tcp_open(tcp(), descriptor);
    if (status < 0) stream_.Close();
  }
  if (status < 0) ::close(descriptor);
  return status;
}

int Connection::OpenLocal() {
  return stream_.Open(this, [this](Stream* stream) { return uv_pipe_init(loop_.uv(), &stream->pipe, 0); });
}

int Connection::OpenTcp() {
  return stream_.Open(this, [this](Stream* stream) { return uv_tcp_init(loop_.uv(), &stream->tcp); });
}

int Connection::StartReading() {
  // Small messages that wait for an acknowledgement of the one before would take tens of milliseconds each.
  if (stream()->type == UV_TCP) uv_tcp_nodelay(tcp(), 1);

  return uv_read_start(
      stream(),
      [](uv_handle_t* stream, std::size_t, uv_buf_t* buffer) {
        // Without a buffer libuv reports the read as failed, which nobody listens to any more.
        if (stream->data == nullptr) return;
        *buffer = static_cast<Connection*>(stream->data)->loop_.ReadBuffer();
      },
      [](uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
        if (stream->data == nullptr) return;
        // The owner may drop its reference on the way.
        const std::shared_ptr<Connection> self = static_cast<Connection*>(stream->data)->shared_from_this();
        self->OnChunk(count, buffer->base);
      });
}

void Connection::OnChunk(ssize_t count, const char* bytes) {
  owner_.OnRead(*this);
  if (count == 0) return;
  if (count < 0) {
    uv_read_stop(stream());
    owner_.OnEnd(*this, static_cast<int>(count));
    return;
  }
  reassembler_.Feed(std::string_view(bytes, static_cast<std::size_t>(count)));
  std::string_view payload;
  FrameReassembler::Result result = FrameReassembler::kFrame;
  // A payload may lead the application to close us: the frames behind it are then nobody's.
  while (!is_closed() && (result = reassembler_.Next(&payload)) == FrameReassembler::kFrame) {
    owner_.OnPayload(*this, payload);
  }
  if (!is_closed() && result == FrameReassembler::kBadLength) {
    uv_read_stop(stream());
    owner_.OnEnd(*this, 0);
  }
}

void Connection::Send(Frame frame) {
  if (is_closed()) {
    Drop();
    return;
  }
  if (outbox_.empty()) {
    loop_.AtTurnEnd([self = shared_from_this()] { self->Flush(); });
  }
  outbox_.push_back(std::move(frame));
}

void Connection::Drop() {
  if (!is_closed()) ReportDroppedFrame();
  owner_.OnFrameDropped(*this);
}

bool Connection::Flush() {
  if (outbox_.empty()) return true;
  std::vector<Frame> frames;
  frames.swap(outbox_);
  const std::size_t count = frames.size();
  if (FramedWrite(stream(), std::move(frames)) >= 0) return true;
  for (std::size_t i = 0; i < count; ++i)
    owner_.OnFrameDropped(*this);
  return false;
}

void Connection::Close() {
  if (is_closed()) return;
  Flush();
  stream_.Close();
}

}  // namespace mivo
