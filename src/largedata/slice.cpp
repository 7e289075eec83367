#include "largedata/slice.h"

#include <mivo/params.h>

#include "transport/builtin_keys.h"
#include "values/decoder.h"

namespace mivo {

namespace {

class SliceSink : public DecodeSink {
 public:
  explicit SliceSink(Slice& slice) : slice_(slice) {}

  void OnPositional(const Scalar& value) override {
    const int position = positional_values_++;
    if (position == 0 && value.tag == WireTag::kInt) slice_.total_size = value.integer;
    if (position == 1 && value.tag == WireTag::kStream) slice_.bytes = value.bytes;
  }

  void OnKey(std::string_view key) override {
    // A later record of the same key replaces the earlier, also when its own value is lost or of another type.
    if (key == kThreadIdKey) slice_.key = 0;
  }
  void OnKeyed(std::string_view key, const Scalar& value) override {
    if (key == kThreadIdKey && value.tag == WireTag::kInt) slice_.key = value.integer;
  }

  void OnListBegin() override {}
  void OnListElement(const Scalar&) override {}
  void OnListEnd() override { ++positional_values_; }
  void OnListMapBegin() override {}
  void OnListMapEntry(std::string_view, const Scalar&) override {}
  void OnListMapEnd() override { ++positional_values_; }

 private:
  Slice& slice_;
  int positional_values_ = 0;
};

}  // namespace

void WriteSlice(const Slice& slice, MIVOParams* out) {
  out->AddKeyValueBool(kLargeDataKey, true);
  out->AddKeyValueInt(kThreadIdKey, slice.key);
  out->AddInt(slice.total_size);
  out->AddStream(slice.bytes.data(), static_cast<long>(slice.bytes.size()));
}

Slice ReadSlice(std::string_view encoded) {
  Slice slice;
  SliceSink sink(slice);
  Decode(encoded, sink);
  return slice;
}

}  // namespace mivo
