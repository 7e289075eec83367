// Large messages by hand: slices, and peers that take and send them.
#ifndef MIVO_TESTS_SUPPORT_SLICES_H_
#define MIVO_TESTS_SUPPORT_SLICES_H_

#include <mivo/mivo.h>

#include "support/raw_client.h"
#include "support/wire.h"

#include <string>
#include <string_view>
#include <vector>

namespace mivo_test {

// The slice size is the process's: a test puts it back.
class ScopedSliceSize {
 public:
  explicit ScopedSliceSize(int bytes) { Set(bytes); }
  ScopedSliceSize(const ScopedSliceSize&) = delete;
  ScopedSliceSize& operator=(const ScopedSliceSize&) = delete;
  ~ScopedSliceSize() { Set(32768); }

  static void Set(int bytes) {
    IClient* const client = CreateClient();
    client->SetBigfileBufferSize(bytes);
    // Not DestroyClient, which takes its time even for one that was never connected.
    delete client;
  }
};

// A large message: what the application put in, then name and key.
inline std::string Whole(const std::string& content, const std::string& name, int key) {
  return Wire().Raw(content).KeyString("s_c_sw_name", name).KeyInt("s_c_sw_threadid", key);
}

inline std::string SliceSet(int key, int total, std::string_view bytes) {
  return Wire().KeyBool("s_c_largedata", true).KeyInt("s_c_sw_threadid", key).Int(total).Stream(bytes);
}

struct TakenSlice {
  bool valid = false;   // a request for the slice receiver with exactly the records of a slice
  std::string request;  // the whole frame
  int envelope_key = 0;
  int key = 0;
  int total = 0;
  std::string bytes;
};

inline TakenSlice ReadSliceRequest(const std::string& request) {
  TakenSlice slice;
  slice.request = request;
  slice.envelope_key = IntOf(request, "s_c_sw_threadid").value_or(0);
  if (TextOf(request, "s_c_sw_name") != "s_c_req_body") return slice;
  const auto records = Decode(TextOf(request, "s_c_sw_data").value_or(""));
  if (!records || records->size() != 4) return slice;
  const Record& mark = (*records)[0];
  const Record& key = (*records)[1];
  const Record& total = (*records)[2];
  const Record& bytes = (*records)[3];
  slice.valid = mark.keyed && mark.key == "s_c_largedata" && mark.tag == Record::kBool && mark.boolean &&  //
                key.keyed && key.key == "s_c_sw_threadid" && key.tag == Record::kInt &&                    //
                !total.keyed && total.tag == Record::kInt && !bytes.keyed && bytes.tag == Record::kStream;
  slice.key = key.integer;
  slice.total = total.integer;
  slice.bytes = bytes.text;
  return slice;
}

// What came in one transfer.
struct TakenTransfer {
  std::vector<TakenSlice> slices;
  std::string whole;
  bool complete = false;
};

// Plays the receiving side of one transfer, whichever it is; `answer` makes the reply to a slice's request.
template <typename Answer>
TakenTransfer TakeTransfer(RawPeer* peer, Answer answer) {
  TakenTransfer transfer;
  while (!transfer.complete) {
    const auto request = peer->ReadFrame();
    if (!request) break;
    TakenSlice slice = ReadSliceRequest(*request);
    if (!slice.valid) break;
    transfer.whole += slice.bytes;
    transfer.complete = static_cast<int>(transfer.whole.size()) >= slice.total;
    transfer.slices.push_back(slice);
    if (!peer->SendFrame(answer(*request))) break;
  }
  return transfer;
}

inline std::string AsServer(const std::string& request) {
  return ServerReply(Wire().Int(0), IntOf(request, "s_c_sw_threadid"), TextOf(request, "s_c_sw_semid"));
}
inline std::string AsClient(const std::string& request) {
  return ClientReply("", IntOf(request, "s_c_sw_threadid").value_or(0), TextOf(request, "s_c_sw_semid"));
}

// Bytes that repeat nowhere near a slice size.
inline std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  unsigned state = static_cast<unsigned>(size) + 1;
  for (char& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_SLICES_H_
