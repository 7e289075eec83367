// One stream between two peers: its handle, its incoming frames, and the one door for what goes out.
#ifndef MIVO_TRANSPORT_CONNECTION_H_
#define MIVO_TRANSPORT_CONNECTION_H_

#include <uv.h>

#include <memory>
#include <string_view>
#include <vector>

#include "loop/event_loop.h"
#include "loop/handle.h"
#include "transport/endpoint.h"
#include "transport/frame.h"
#include "transport/frame_reassembler.h"

namespace mivo {

// Held by shared pointers: a request under way keeps its connection, so that its reply finds this object, closed if the
// peer has gone, and never another peer that got the same memory.
//
// Loop thread, except `id`, which any thread may read.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // Told of what happens; outlives whatever may still be read or sent.
  class Owner {
   public:
    virtual ~Owner() = default;
    // Every read, also the one that finds the end.
    virtual void OnRead(Connection& connection) = 0;
    virtual void OnPayload(Connection& connection, std::string_view payload) = 0;
    // The peer has gone (UV_EOF), the stream failed (another error of libuv), or it made no sense any more (0). Nothing
    // more will be read. The owner closes.
    virtual void OnEnd(Connection& connection, int status) = 0;
    // A frame was dropped: it could not be written, or came after the close.
    virtual void OnFrameDropped(Connection& connection) = 0;
  };

  Connection(EventLoop& loop, Owner& owner, int id) : loop_(loop), owner_(owner), id_(id) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int id() const { return id_; }

  // Takes a connected socket, also when it fails, which closes it. Returns libuv's result.
  int Adopt(int descriptor, Endpoint::Kind kind);

  // Makes the handle, for a local socket or for TCP. Returns libuv's result.
  int OpenLocal();
  int OpenTcp();
  uv_pipe_t* pipe() { return &stream_.get()->pipe; }
  uv_tcp_t* tcp() { return &stream_.get()->tcp; }
  uv_stream_t* stream() { return &stream_.get()->stream; }

  int StartReading();

  // Writes at the end of the turn, together with what else comes until then.
  void Send(Frame frame);

  // For what cannot be sent: reports a frame that is dropped as Send and Flush do.
  void Drop();

  // Writes at once what was sent. False if it was dropped.
  bool Flush();

  // Writes what was sent, as far as the kernel takes it at once, and closes; the rest is given up, with a line for each
  // frame of what was cut off. May be repeated.
  void Close();
  bool is_closed() const { return !stream_; }

 private:
  union Stream {
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  };

  void OnChunk(ssize_t count, const char* bytes);

  EventLoop& loop_;
  Owner& owner_;
  const int id_;
  Handle<Stream> stream_;
  FrameReassembler reassembler_;
  std::vector<Frame> outbox_;
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_CONNECTION_H_
