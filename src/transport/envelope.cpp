#include "transport/envelope.h"

#include <mivo/params.h>

#include "base/pointer_text.h"
#include "base/spare_memory.h"
#include "transport/builtin_keys.h"
#include "transport/frame.h"
#include "values/decoder.h"
#include "values/encoder.h"
#include "values/encoding.h"

namespace mivo {

namespace {

class EnvelopeSink : public KeyedSink {
 public:
  explicit EnvelopeSink(Envelope& envelope) : envelope_(envelope) {}

  void OnKey(std::string_view key) override {
    // A later record of the same key replaces the earlier, also when its own value is lost or of another type.
    if (key == kNameKey) {
      envelope_.name.reset();
    } else if (key == kThreadIdKey) {
      envelope_.thread_id.reset();
    } else if (key == kSemIdKey) {
      envelope_.sem_id.reset();
    } else if (key == kDataKey) {
      envelope_.data.reset();
    }
  }

  void OnKeyed(std::string_view key, const Scalar& value) override {
    const bool is_text = value.tag == WireTag::kString;
    if (key == kNameKey) {
      if (is_text) envelope_.name = value.bytes;
    } else if (key == kThreadIdKey) {
      if (value.tag == WireTag::kInt) envelope_.thread_id = value.integer;
    } else if (key == kSemIdKey) {
      if (is_text) envelope_.sem_id = value.bytes;
    } else if (key == kDataKey) {
      if (is_text || value.tag == WireTag::kStream) envelope_.data = value.bytes;
    }
  }

 private:
  Envelope& envelope_;
};

}  // namespace

Envelope ReadEnvelope(std::string_view payload) {
  Envelope envelope;
  EnvelopeSink sink(envelope);
  envelope.well_formed = Decode(payload, sink);
  return envelope;
}

Envelope MoveEnvelope(const Envelope& envelope, std::string_view from, std::string_view to) {
  const auto move = [&](const std::optional<std::string_view>& view) -> std::optional<std::string_view> {
    if (!view) return std::nullopt;
    return to.substr(static_cast<std::size_t>(view->data() - from.data()), view->size());
  };
  Envelope moved = envelope;
  moved.name = move(envelope.name);
  moved.sem_id = move(envelope.sem_id);
  moved.data = move(envelope.data);
  return moved;
}

std::string EncodeRequest(std::string_view name, int key, const MIVOParams* params, std::uintptr_t token) {
  // Four keys, their names and stamps take less than this beside the two variable parts.
  constexpr std::size_t kEnvelopeSize = 192;
  const std::string_view data = params == nullptr ? std::string_view() : EncodingOf(*params);
  RequireSendable(name.size() + data.size());

  const std::size_t size = kEnvelopeSize + name.size() + data.size();
  std::string out = TakeSpareString(size);
  out.reserve(size);
  AppendKeyValueString(out, kNameKey, name);
  AppendKeyValueInt(out, kThreadIdKey, key);
  if (params != nullptr) AppendKeyValueStream(out, kDataKey, data);
  if (token != 0) AppendKeyValueString(out, kSemIdKey, PointerToText(token));
  return out;
}

std::string CloseAnswer(int key) {
  std::string reply;
  AppendBool(reply, true);
  AppendKeyValueString(reply, kNameKey, kRetval);
  AppendKeyValueInt(reply, kThreadIdKey, key);
  return reply;
}

void AppendServerReplyTail(std::string& reply, const Envelope& request) {
  AppendKeyValueString(reply, kNameKey, kRetval);
  if (request.thread_id) AppendKeyValueInt(reply, kThreadIdKey, *request.thread_id);
  if (request.sem_id) AppendKeyValueString(reply, kSemIdKey, *request.sem_id);
}

void AppendClientReplyTail(std::string& reply, const Envelope& request) {
  AppendKeyValueInt(reply, kThreadIdKey, request.thread_id.value_or(0));
  if (request.sem_id) AppendKeyValueString(reply, kSemIdKey, *request.sem_id);
  AppendKeyValueString(reply, kNameKey, kRetval);
}

}  // namespace mivo
