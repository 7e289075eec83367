#include "calls/version_check.h"

#include <string_view>

#include "transport/builtin_keys.h"
#include "values/decoder.h"
#include "values/encoder.h"

namespace mivo {

namespace {

// Looks for the banner alone: no values are built.
class BannerSink : public KeyedSink {
 public:
  bool is_ours() const { return is_ours_; }

  void OnKey(std::string_view key) override {
    // A later record of the same key replaces the earlier, also when its own value is lost or of another type.
    if (key == kVersionKey) is_ours_ = false;
  }
  void OnKeyed(std::string_view key, const Scalar& value) override {
    if (key == kVersionKey) is_ours_ = value.tag == WireTag::kString && value.bytes == kVersionBanner;
  }

 private:
  bool is_ours_ = false;
};

}  // namespace

std::string AnswerVersionCheck(const Envelope& request) {
  BannerSink sink;
  if (request.data) Decode(*request.data, sink);
  std::string reply;
  AppendBool(reply, sink.is_ours());
  AppendKeyValueString(reply, kVersionKey, kVersionBanner);
  AppendServerReplyTail(reply, request);
  return reply;
}

}  // namespace mivo
