#include "largedata/recv_large_data_server.h"

#include <mivo/params.h>

#include <cstdlib>
#include <utility>

#include "largedata/slice.h"
#include "largedata/slice_sender.h"
#include "transport/builtin_keys.h"
#include "transport/framed_write.h"
#include "values/encoder.h"

namespace mivo {

namespace {

// A large message may name this receiver as its method, and so on inwards. What a program has a use for nests once or
// twice; a peer that nests a thousand levels is after our stack.
constexpr int kDeepestNesting = 32;
thread_local int nesting = 0;

// What is added to each result: the receiver's name and the key.
constexpr std::size_t kResultTailSize = KeySize(sizeof(kNameKey) - 1) + StringRecordSize(sizeof(kLargeDataKey) - 1) +
                                        KeySize(sizeof(kThreadIdKey) - 1) + kIntRecordSize;

class NestingScope {
 public:
  NestingScope() { ++nesting; }
  ~NestingScope() { --nesting; }
  NestingScope(const NestingScope&) = delete;
  NestingScope& operator=(const NestingScope&) = delete;
};

}  // namespace

class RecvLargeDataServer::Turn : public IServerMethod {
 public:
  Turn(RecvLargeDataServer& receiver, const Slice& slice)
      : receiver_(receiver), slice_(receiver.partial_table_, slice) {}
  void OnCall(int client_id, MIVOParams*, MIVOParams* reply) override {
    receiver_.Answer(client_id, slice_.key(), slice_.Append(), reply);
  }

 private:
  RecvLargeDataServer& receiver_;
  PartialTable::Arrival slice_;
};

RecvLargeDataServer::RecvLargeDataServer(Dispatch dispatch, SendSlice send_slice)
    : dispatch_(std::move(dispatch)), send_slice_(std::move(send_slice)) {}

void RecvLargeDataServer::OnCall(int client_id, MIVOParams* request, MIVOParams* reply) {
  const Slice slice = ReadSlice(*request->GetParamas());
  Answer(client_id, slice.key, partial_table_.Add(slice), reply);
}

std::unique_ptr<IServerMethod> RecvLargeDataServer::Arrive(std::string_view arguments) {
  return std::make_unique<Turn>(*this, ReadSlice(arguments));
}

void RecvLargeDataServer::Answer(int client_id, int key, std::optional<std::string> bytes, MIVOParams* reply) {
  const NestingScope scope;
  reply->AddKeyValueString(kNameKey, kRetval);
  if (bytes) {
    MIVOParams whole;
    *whole.GetParamas() = std::move(*bytes);
    if (whole.ToParams()) {
      reply->AddInt(1);
      reply->AddKeyValueString(kNameKey, kRetval);
      ServeWhole(client_id, key, &whole);
    } else {
      reply->AddInt(-1);
    }
  }
  reply->AddInt(0);
}

void RecvLargeDataServer::ServeWhole(int client_id, int key, MIVOParams* whole) {
  const MIVOValue* const name_value = whole->GetMap(kNameKey);
  const std::string name = name_value != nullptr && name_value->IsString() ? name_value->GetString() : "";

  MIVOParams result;
  if (nesting > kDeepestNesting) {
    result.AddString(("no event: " + name).c_str());
  } else {
    dispatch_(name, client_id, whole, &result);
  }
  // A result that is too long ends the program that has made it; but no peer may bring that about, with the name of an
  // unknown method that would have to go back.
  const std::size_t size = result.GetParamas()->size() + kResultTailSize;
  if (size > kLongestWhole) {
    if (size > kLongestWhole + name.size()) std::abort();
    ReportDroppedFrame();
    return;
  }
  result.AddKeyValueString(kNameKey, kLargeDataKey);
  result.AddKeyValueInt(kThreadIdKey, key);
  SendInSlices(*result.GetParamas(), key, [&](MIVOParams* part) { return send_slice_(client_id, key, part); });
}

}  // namespace mivo
