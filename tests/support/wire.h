// The encoding, written and read a second time: what the library sends and takes is compared with this, so nothing here
// uses the library.
#ifndef MIVO_TESTS_SUPPORT_WIRE_H_
#define MIVO_TESTS_SUPPORT_WIRE_H_

#include "support/golden.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mivo_test {

constexpr char kBanner[] = "MIVO Version: 1.1.0.12";

// Builds one payload, record by record, every stamp in place.
//   Wire().Key("retval").String("ok").Int(5).bytes()
class Wire {
 public:
  Wire& Int(std::int32_t value);
  Wire& Bool(bool value);
  Wire& Double(double value);
  Wire& String(std::string_view text);
  Wire& Stream(std::string_view bytes);

  // The first half of a pair: the next record is its value.
  Wire& Key(std::string_view key);

  // Only the header; the elements (List) or pairs (ListMap) follow by the other operations.
  Wire& List(std::int32_t count);
  Wire& ListMap(std::int32_t count);

  Wire& KeyInt(std::string_view key, std::int32_t value) { return Key(key).Int(value); }
  Wire& KeyBool(std::string_view key, bool value) { return Key(key).Bool(value); }
  Wire& KeyDouble(std::string_view key, double value) { return Key(key).Double(value); }
  Wire& KeyString(std::string_view key, std::string_view text) { return Key(key).String(text); }
  Wire& KeyStream(std::string_view key, std::string_view bytes) { return Key(key).Stream(bytes); }

  // Bytes as they are, without a stamp: for what no peer should send.
  Wire& Raw(std::string_view bytes);

  const std::string& bytes() const { return bytes_; }
  operator const std::string&() const { return bytes_; }
  operator std::string_view() const { return bytes_; }

 private:
  void U32(std::uint32_t value);
  void Stamp() { U32(static_cast<std::uint32_t>(bytes_.size())); }

  std::string bytes_;
};

// One record of a payload, in the order of the bytes.
struct Record {
  enum Tag { kInt = 0, kBool = 1, kDouble = 2, kString = 3, kStream = 4, kList = 6 };

  int tag = -1;
  bool keyed = false;
  std::string key;
  std::int32_t integer = 0;
  bool boolean = false;
  double real = 0;
  std::string text;  // of a string or stream
  std::vector<Record> elements;

  // As in: 5 | true | 0.5 | "text" | stream 00 FF | [1, 2] and for a pair key = "text".
  std::string Describe() const;
};

// The records of a payload; nothing when it is not well-formed to the last byte and stamp.
std::optional<std::vector<Record>> Decode(std::string_view payload);

// The description of each record, in order; one line "malformed: <hex>" when the payload is not well-formed.
std::vector<std::string> Describe(std::string_view payload);

// The first record with this key; null when there is none.
const Record* Find(const std::vector<Record>& records, std::string_view key);

// Of a payload: the value under a key, where it is there and of the type.
std::optional<std::string> TextOf(std::string_view payload, std::string_view key);
std::optional<std::int32_t> IntOf(std::string_view payload, std::string_view key);

// As in "05 FF".
inline std::string Hex(std::string_view bytes) {
  return ToHex(bytes);
}

std::string LittleEndian(std::int32_t value);
std::string Frame(std::string_view payload);  // with its length in front

// The envelope of a call, in the order in which clients write it. What is not given is not written.
struct Envelope {
  std::string name;
  std::optional<std::int32_t> threadid = std::nullopt;
  std::optional<std::string> data = std::nullopt;  // an encoded payload
  std::optional<std::string> semid = std::nullopt;
};
std::string Request(const Envelope& envelope);

// The reply of a client to a server's call, or of a server to a client's: the tails differ in their order.
std::string ClientReply(std::string content, std::int32_t threadid, const std::optional<std::string>& semid);
std::string ServerReply(std::string content, const std::optional<std::int32_t>& threadid,
                        const std::optional<std::string>& semid);

// The data of a handshake request, the request, and the good answer to it.
std::string HandshakeData(std::string_view banner = kBanner);
std::string HandshakeRequest(std::int32_t threadid, const std::string& semid);
std::string HandshakeReply(const std::string& request, bool accepted = true, std::string_view banner = kBanner);

// Payloads pinned to the byte.
namespace exact {
extern const char kHandshakeRequest[];        // thread id 1234, semaphore "0x5a10"
extern const char kHandshakeReply[];          // to the same, accepted
extern const char kUnknownNameReply[];        // a server's, to foo, thread id 9, no semaphore
extern const char kEmptyServerReply[];        // thread id 9, semaphore "0xab"
extern const char kEmptyClientReply[];        // thread id 9, semaphore "0xab"
extern const char kUnknownNameClientReply[];  // a client's
extern const char kSliceTakenReply[];         // to a slice that completes nothing, thread id 9
extern const char kSliceCompletedReply[];     // to the completing slice, thread id 9
extern const char kSliceUndecodableReply[];   // to the completing slice of bytes that are no encoding, thread id 9
extern const char kSlice[];                   // key 9, total 100, bytes ABCDEFGHIJ
extern const char kNotConnected[];            // the error set -1000
extern const char kCloseServerReply[];        // thread id 5
extern const char kPost[];                    // foo, thread id 9, no arguments
extern const char kCall[];                    // foo, thread id 9, empty arguments, semaphore "0xab"
}  // namespace exact

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_WIRE_H_
