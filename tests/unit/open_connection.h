// A connection of the library's whose other end a test reads and writes by hand.
#ifndef MIVO_TESTS_UNIT_OPEN_CONNECTION_H_
#define MIVO_TESTS_UNIT_OPEN_CONNECTION_H_

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "pool/job.h"
#include "support/event.h"
#include "transport/connection.h"
#include "unit/stream_pair.h"

namespace mivo {

// It may be sent to at once, and is read from when StartReading was called.
class OpenConnection : private Connection::Owner {
 public:
  // What is done with a payload, on the thread that reads.
  using OnPayloadDo = std::function<void(std::string_view payload)>;

  explicit OpenConnection(OnPayloadDo on_payload = nullptr, int id = 42)
      : on_payload_(std::move(on_payload)),
        connection_(std::make_shared<Connection>(static_cast<Connection::Owner&>(*this), jobs_, id)) {
    if (connection_->Open(pair.TakeOurs()) != 0) throw std::runtime_error("the connection does not open");
  }
  // Whoever is in the connection has to have left, or to leave by its close.
  ~OpenConnection() {
    connection_->Close();
    jobs_.WaitUntilIdle();
  }
  OpenConnection(const OpenConnection&) = delete;
  OpenConnection& operator=(const OpenConnection&) = delete;

  Connection& operator*() { return *connection_; }
  Connection* operator->() { return connection_.get(); }
  const std::shared_ptr<Connection>& shared() { return connection_; }
  JobGroup& jobs() { return jobs_; }

  // The next frame that has been sent; nothing when none comes.
  std::optional<std::string> ReadFrame() {
    const auto take = [this](std::size_t size) -> std::optional<std::string> {
      if (!mivo_test::Eventually([&] { return (sent_ += pair.ReadSome()).size() >= size || pair.has_ended(); })) {
        return std::nullopt;
      }
      if (sent_.size() < size) return std::nullopt;
      std::string taken = sent_.substr(0, size);
      sent_.erase(0, size);
      return taken;
    };
    const std::optional<std::string> prefix = take(sizeof(std::int32_t));
    if (!prefix) return std::nullopt;
    std::int32_t length = 0;
    std::memcpy(&length, prefix->data(), sizeof length);
    return take(static_cast<std::size_t>(length));
  }
  // Everything that has been sent by now and was not read yet.
  std::string ReadAll() {
    sent_ += pair.ReadSome();
    return std::exchange(sent_, "");
  }

  mivo_test::StreamPair pair = mivo_test::StreamPair::Local();
  std::atomic<int> dropped{0};
  mivo_test::Event ended;

 private:
  void OnFirstRead(Connection&) override {}
  void OnPayload(Connection&, std::string_view payload, Jobs&) override {
    if (on_payload_) on_payload_(payload);
  }
  void OnEnd(Connection&, int) override { ended.Signal(); }
  void OnFrameDropped(Connection&) override { ++dropped; }

  const OnPayloadDo on_payload_;
  JobGroup jobs_;
  const std::shared_ptr<Connection> connection_;
  std::string sent_;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_OPEN_CONNECTION_H_
