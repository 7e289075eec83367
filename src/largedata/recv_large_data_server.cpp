#include "largedata/recv_large_data_server.h"

#include <mivo/params.h>

#include <cstdlib>
#include <utility>

#include "base/standard_output.h"
#include "largedata/slice.h"
#include "largedata/slice_sender.h"
#include "transport/builtin_keys.h"
#include "values/encoder.h"
#include "values/encoding.h"
#include "values/params_bytes.h"

namespace mivo {

namespace {

// A large message may name this receiver as its method, and so on inwards. What a program has a use for nests once or
// twice; a peer that nests a thousand levels is after our stack.
constexpr int kDeepestNesting = 32;

// What is added to each result: the receiver's name and the key.
constexpr std::size_t kResultTailSize = KeySize(sizeof(kNameKey) - 1) + StringRecordSize(sizeof(kLargeDataKey) - 1) +
                                        KeySize(sizeof(kThreadIdKey) - 1) + kIntRecordSize;

// The message that this thread serves, for those inside it.
struct Serving {
  int depth = 0;
  std::vector<std::string>* results = nullptr;
};
thread_local Serving serving;

class ServingScope {
 public:
  explicit ServingScope(std::vector<std::string>* results) : outer_(serving) { serving = {outer_.depth + 1, results}; }
  ~ServingScope() { serving = outer_; }
  ServingScope(const ServingScope&) = delete;
  ServingScope& operator=(const ServingScope&) = delete;

 private:
  const Serving outer_;
};

}  // namespace

std::string AnswerToSlice() {
  std::string reply;
  AppendKeyValueString(reply, kNameKey, kRetval);
  AppendInt(reply, 0);
  return reply;
}

RecvLargeDataServer::RecvLargeDataServer(Dispatch dispatch) : dispatch_(std::move(dispatch)) {}

std::optional<RecvLargeDataServer::Whole> RecvLargeDataServer::Take(int client_id, std::string_view slice) {
  const Slice read = ReadSlice(slice);
  std::optional<std::string> bytes = partial_.Add(client_id, read);
  if (!bytes) return std::nullopt;
  return Whole{read.key, std::move(*bytes)};
}

RecvLargeDataServer::Served RecvLargeDataServer::Serve(int client_id, Whole whole) {
  Served served;
  MIVOParams reply;
  Answer(client_id, std::move(whole), &reply, &served.results);
  served.reply = std::move(*reply.GetParamas());
  return served;
}

void RecvLargeDataServer::OnCall(int client_id, MIVOParams* request, MIVOParams* reply) {
  std::vector<std::string> of_nobody;
  Answer(client_id, Take(client_id, EncodingOf(*request)), reply,
         serving.results == nullptr ? &of_nobody : serving.results);
}

void RecvLargeDataServer::Answer(int client_id, std::optional<Whole> whole, MIVOParams* reply,
                                 std::vector<std::string>* results) {
  const ServingScope scope(results);
  reply->AddKeyValueString(kNameKey, kRetval);
  if (whole) {
    MIVOParams message;
    if (ParamsBytes::Decode(message, std::move(whole->bytes))) {
      reply->AddInt(1);
      reply->AddKeyValueString(kNameKey, kRetval);
      ServeWhole(client_id, whole->key, &message, results);
    } else {
      reply->AddInt(-1);
    }
  }
  reply->AddInt(0);
}

void RecvLargeDataServer::ServeWhole(int client_id, int key, MIVOParams* whole, std::vector<std::string>* results) {
  const MIVOValue* const name_value = whole->GetMap(kNameKey);
  std::string name;
  if (name_value != nullptr && name_value->IsString()) {
    long length = 0;
    const char* const bytes = name_value->GetStream(length);
    name.assign(bytes, static_cast<std::size_t>(length));
  }

  MIVOParams result;
  if (serving.depth > kDeepestNesting) {
    result.AddString(("no event: " + name).c_str());
  } else {
    dispatch_(name, client_id, whole, &result);
  }
  // A result that is too long ends the program that has made it; but no peer may bring that about, with the name of an
  // unknown method that would have to go back.
  const std::size_t size = result.GetParamas()->size() + kResultTailSize;
  if (size > kLongestWhole) {
    if (size > kLongestWhole + name.size()) std::abort();
    PrintDirect("write error\n");
    return;
  }
  result.AddKeyValueString(kNameKey, kLargeDataKey);
  result.AddKeyValueInt(kThreadIdKey, key);
  results->push_back(std::move(*result.GetParamas()));
}

}  // namespace mivo
