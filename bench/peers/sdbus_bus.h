// A connection of sd-bus between two processes, without a bus daemon.
#ifndef MIVO_BENCH_PEERS_SDBUS_BUS_H_
#define MIVO_BENCH_PEERS_SDBUS_BUS_H_

#include <systemd/sd-bus.h>

#include <cstring>
#include <string>

#include "harness/connection.h"

namespace bench {

constexpr const char* kBusPath = "/bench";
constexpr const char* kBusInterface = "bench.Echo";

inline void CheckBus(int result, const char* what) {
  if (result < 0) throw Wrong(std::string(what) + ": " + std::strerror(-result));
}

class BusMessage {
 public:
  BusMessage() = default;
  // Takes the reference.
  explicit BusMessage(sd_bus_message* message) : message_(message) {}
  ~BusMessage() { sd_bus_message_unref(message_); }
  BusMessage(const BusMessage&) = delete;
  BusMessage& operator=(const BusMessage&) = delete;
  void Take(sd_bus_message* message) {
    sd_bus_message_unref(message_);
    message_ = message;
  }
  sd_bus_message* get() const { return message_; }

 private:
  sd_bus_message* message_ = nullptr;
};

// A call to the other side, without arguments as yet. The reference is the caller's.
inline sd_bus_message* NewBusCall(sd_bus* bus, const char* method) {
  sd_bus_message* message = nullptr;
  CheckBus(sd_bus_message_new_method_call(bus, &message, nullptr, kBusPath, kBusInterface, method), "no message");
  return message;
}

inline void AppendBytes(sd_bus_message* message, const std::string& bytes) {
  CheckBus(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append");
}

inline void AppendSmall(sd_bus_message* message) {
  CheckBus(sd_bus_message_append(message, "is", kSmallInt, kSmallText), "append");
  AppendBytes(message, SmallBlob());
}

struct BusBytes {
  const void* data = nullptr;
  std::size_t size = 0;
  bool Are(const std::string& bytes) const {
    return size == bytes.size() && std::memcmp(data, bytes.data(), size) == 0;
  }
};

inline BusBytes ReadBytes(sd_bus_message* message) {
  BusBytes bytes;
  CheckBus(sd_bus_message_read_array(message, 'y', &bytes.data, &bytes.size), "read");
  return bytes;
}

inline bool IsSmall(sd_bus_message* message) {
  int number = 0;
  const char* text = nullptr;
  CheckBus(sd_bus_message_read(message, "is", &number, &text), "read");
  return number == kSmallInt && std::strcmp(text, kSmallText) == 0 && ReadBytes(message).Are(SmallBlob());
}

// Answers a small call with what came.
inline int AnswerSmall(sd_bus_message* message, void*, sd_bus_error*) {
  int number = 0;
  const char* text = nullptr;
  CheckBus(sd_bus_message_read(message, "is", &number, &text), "read");
  const BusBytes blob = ReadBytes(message);
  sd_bus_message* reply = nullptr;
  CheckBus(sd_bus_message_new_method_return(message, &reply), "no reply");
  const BusMessage owner(reply);
  CheckBus(sd_bus_message_append(reply, "is", number, text), "append");
  CheckBus(sd_bus_message_append_array(reply, 'y', blob.data, blob.size), "append");
  return sd_bus_send(nullptr, reply, nullptr);
}

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_SDBUS_BUS_H_
