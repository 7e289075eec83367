#include "values/value_maker.h"

#include <memory>
#include <new>
#include <string>

#include "values/decoder.h"

namespace mivo {
namespace {

// Calls `make` with what a constructor of MIVOValue needs for this scalar.
template <class Make>
MIVOValue* MakeWith(const Scalar& scalar, Make make) {
  switch (scalar.tag) {
    case WireTag::kInt:
      return make(static_cast<int>(scalar.integer));
    case WireTag::kBool:
      return make(scalar.boolean);
    case WireTag::kDouble:
      return make(scalar.real);
    default:
      return make(scalar.bytes.data(), static_cast<long>(scalar.bytes.size()),
                  scalar.tag == WireTag::kString ? MIVOValue::String : MIVOValue::Stream);
  }
}

// An element is its list's alone: it may be taken out and deleted by itself.
std::unique_ptr<MIVOValue> NewElement(const Scalar& scalar) {
  return std::unique_ptr<MIVOValue>(MakeWith(scalar, [](auto... arguments) { return new MIVOValue(arguments...); }));
}

// Takes the one value that is reported.
class Maker {
 public:
  explicit Maker(MIVOValue* place) : place_(place) {}
  ~Maker() {
    if (unfinished_ != nullptr) unfinished_->~MIVOValue();
  }
  Maker(const Maker&) = delete;
  Maker& operator=(const Maker&) = delete;

  bool made() const { return made_; }

  void OnPositional(std::uint64_t, const Scalar& value) {
    void* const place = place_;
    MakeWith(value, [place](auto... arguments) { return new (place) MIVOValue(arguments...); });
    made_ = true;
  }
  void OnListBegin(std::uint64_t) { unfinished_ = new (static_cast<void*>(place_)) MIVOValue(MIVOValue::List); }
  void OnListElement(std::uint64_t, const Scalar& value) {
    std::unique_ptr<MIVOValue> element = NewElement(value);
    unfinished_->list.push_back(element.get());
    element.release();
  }
  void OnListEnd() { Finish(); }

  void OnListMapBegin(std::uint64_t) { unfinished_ = new (static_cast<void*>(place_)) MIVOValue(MIVOValue::ListMap); }
  // Nobody else has seen the list map yet, so a replaced element is not shared and goes.
  void OnListMapEntry(std::uint64_t, std::string_view key, const Scalar& value) {
    std::unique_ptr<MIVOValue> element = NewElement(value);
    MIVOValue*& entry = unfinished_->listMap[std::string(key)];
    delete entry;
    entry = element.release();
  }
  void OnListMapEnd() { Finish(); }

  void OnKey(std::string_view) {}

 private:
  void Finish() {
    unfinished_ = nullptr;
    made_ = true;
  }

  MIVOValue* const place_;
  MIVOValue* unfinished_ = nullptr;  // a list that is not made to its end
  bool made_ = false;
};

}  // namespace

bool MakeValue(std::string_view bytes, std::uint64_t offset, MIVOValue* place) {
  Maker maker(place);
  // Whether the record's stamp is right is not asked: its value counts all the same.
  Decoder<Maker>(bytes, maker).TakeRecordAt(offset);
  return maker.made();
}

void MakeSmallValues(std::string_view bytes, const std::uint32_t* offsets, std::uint32_t count, MIVOValue* places,
                     std::uint64_t& made) {
  constexpr std::size_t kShortText = 64;
  Maker none(nullptr);
  Decoder<Maker> decoder(bytes, none);
  for (std::uint32_t index = 0; index < count; ++index) {
    Scalar value;
    if (!decoder.TakeScalarAt(offsets[index], value) || value.bytes.size() > kShortText) continue;
    void* const place = places + index;
    MakeWith(value, [place](auto... arguments) { return new (place) MIVOValue(arguments...); });
    made |= std::uint64_t{1} << index;
  }
}

}  // namespace mivo
