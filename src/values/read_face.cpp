#include "values/read_face.h"

#include <algorithm>
#include <utility>

#include "values/decoder.h"

namespace mivo {

// Offsets have 32 bits, like the stamps: what lies behind the first 4 GiB has no stamp that could be right.
constexpr std::size_t kLongestEncoding = UINT32_MAX;

// Notes where the values stand.
class ReadFace::Indexer {
 public:
  Indexer(ReadFace& face, const char* bytes) : face_(face), bytes_(bytes) {}

  void OnPositional(std::uint64_t offset, const Scalar&) { face_.positional_.Add(static_cast<std::uint32_t>(offset)); }

  void OnKey(std::string_view key) {
    number_ = face_.keys_.Find(bytes_, key, hash_);
    if (number_ != KeyIndex::kAbsent) face_.keyed_.Replace(number_, LazyValues::kNoRecord);
  }

  void OnKeyed(std::uint64_t offset, std::string_view key, const Scalar&) {
    if (number_ == KeyIndex::kAbsent) {
      face_.keys_.Add(bytes_, key, hash_);
      face_.keyed_.Add(static_cast<std::uint32_t>(offset));
    } else {
      face_.keyed_.Replace(number_, static_cast<std::uint32_t>(offset));
    }
  }

  void OnListBegin(std::uint64_t offset) { list_ = static_cast<std::uint32_t>(offset); }
  void OnListElement(std::uint64_t, const Scalar&) {}
  void OnListEnd() { face_.positional_.Add(list_); }

  void OnListMapBegin(std::uint64_t offset) { OnListBegin(offset); }
  void OnListMapEntry(std::uint64_t, std::string_view, const Scalar&) {}
  void OnListMapEnd() { OnListEnd(); }

 private:
  ReadFace& face_;
  const char* const bytes_;
  std::uint32_t number_ = KeyIndex::kAbsent;  // of the key named last
  std::uint32_t hash_ = 0;                    // that key's
  std::uint32_t list_ = 0;                    // where the list that is not at its end yet begins
};

ReadFace::ReadFace(std::string_view bytes, Bytes whose)
    : bytes_(bytes.data()), size_(std::min(bytes.size(), kLongestEncoding)), whose_(whose) {
  Indexer indexer(*this, bytes.data());
  is_well_formed_ = Decoder<Indexer>(std::string_view(bytes.data(), size_), indexer).TakeAll() && size_ == bytes.size();
}

MIVOValue* ReadFace::Find(std::string_view key) const {
  const std::uint32_t number = keys_.Find(bytes_.load(std::memory_order_acquire), key);
  return number == KeyIndex::kAbsent ? nullptr : Keyed(number);
}

MIVOValue* ReadFace::Make(const LazyValues& values, std::uint32_t number) const {
  const MutexLock lock(mutex_);
  // What is made does not change what the set shows.
  return const_cast<LazyValues&>(values).At(number, std::string_view(bytes_.load(std::memory_order_relaxed), size_));
}

void ReadFace::TakeCopy(Bytes whose) {
  const MutexLock lock(mutex_);
  if (whose_ > whose) return;
  own_bytes_.assign(bytes_.load(std::memory_order_relaxed), size_);
  bytes_.store(own_bytes_.data(), std::memory_order_release);
  whose_ = Bytes::kOwn;
}

void ReadFace::TakeBuffer(std::string bytes) {
  const MutexLock lock(mutex_);
  if (whose_ != Bytes::kTheSets) return;
  own_bytes_ = std::move(bytes);
  bytes_.store(own_bytes_.data(), std::memory_order_release);
  whose_ = Bytes::kOwn;
}

}  // namespace mivo
