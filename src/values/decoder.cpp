#include "values/decoder.h"

namespace mivo {
namespace {

// Leaves out what DecodeSink does not ask for.
class Forward {
 public:
  explicit Forward(DecodeSink& sink) : sink_(sink) {}

  void OnPositional(std::uint64_t, const Scalar& value) { sink_.OnPositional(value); }
  void OnKey(std::string_view key) { sink_.OnKey(key); }
  void OnKeyed(std::uint64_t, std::string_view key, const Scalar& value) { sink_.OnKeyed(key, value); }
  void OnListBegin(std::uint64_t) { sink_.OnListBegin(); }
  void OnListElement(std::uint64_t, const Scalar& value) { sink_.OnListElement(value); }
  void OnListEnd() { sink_.OnListEnd(); }
  void OnListMapBegin(std::uint64_t) { sink_.OnListMapBegin(); }
  void OnListMapEntry(std::uint64_t, std::string_view key, const Scalar& value) { sink_.OnListMapEntry(key, value); }
  void OnListMapEnd() { sink_.OnListMapEnd(); }

 private:
  DecodeSink& sink_;
};

}  // namespace

bool Decode(std::string_view bytes, DecodeSink& sink) {
  Forward forward(sink);
  return Decoder<Forward>(bytes, forward).TakeAll();
}

}  // namespace mivo
