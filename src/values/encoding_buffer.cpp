#include "values/encoding_buffer.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace mivo {
namespace {

constexpr std::size_t kSmallestRoom = 240;

// What is taken into use at once is filled with zeros first, so it stays in proportion to what there is.
constexpr std::size_t kSmallestStep = 256;

}  // namespace

void EncodingBuffer::Reserve(std::size_t size, std::initializer_list<std::string_view*> sources, std::string& before) {
  const std::string_view former = view();
  const std::size_t needed = former.size() + size;
  if (!is_borrowed() && bytes_.capacity() >= needed) return;
  std::string grown;
  grown.reserve(std::max({needed, 2 * former.size(), kSmallestRoom}));
  grown.append(former);
  const std::less<> less;
  for (std::string_view* source : sources) {
    if (less(source->data(), former.data()) || !less(source->data(), former.data() + former.size())) continue;
    const auto offset = static_cast<std::size_t>(source->data() - former.data());
    *source = std::string_view(grown.data() + offset, source->size());
  }
  size_ = former.size();
  borrowed_ = std::string_view();
  before = std::exchange(bytes_, std::move(grown));
}

void EncodingBuffer::Open(std::size_t size) {
  bytes_.resize(std::min(bytes_.capacity(), size_ + size + std::max(size_, kSmallestStep)));
}

void EncodingBuffer::Append(std::string_view bytes) {
  Trim();
  bytes_.append(bytes);
  size_ = bytes_.size();
}

std::string& EncodingBuffer::Text() {
  if (!shown_) {
    Own();
    Trim();
    shown_ = true;
  }
  return bytes_;
}

void EncodingBuffer::Clear() {
  borrowed_ = std::string_view();
  if (shown_) {
    bytes_.clear();
    return;
  }
  size_ = 0;
  bytes_[0] = '\0';
}

void EncodingBuffer::Assign(std::string_view bytes) {
  bytes_.assign(bytes);
  borrowed_ = std::string_view();
  size_ = bytes_.size();
}

void EncodingBuffer::Adopt(std::string bytes) {
  bytes_ = std::move(bytes);
  borrowed_ = std::string_view();
  size_ = bytes_.size();
}

void EncodingBuffer::Borrow(std::string_view bytes) {
  if (shown_ || bytes.empty()) {
    Assign(bytes);
    return;
  }
  size_ = 0;
  bytes_.clear();
  borrowed_ = bytes;
}

std::string EncodingBuffer::Take() {
  Own();
  if (!shown_) Trim();
  std::string taken = std::move(bytes_);
  bytes_.clear();
  size_ = 0;
  return taken;
}

void EncodingBuffer::Own() {
  if (!is_borrowed()) return;
  Assign(borrowed_);
}

void EncodingBuffer::Trim() {
  if (bytes_.size() != size_) bytes_.resize(size_);
}

}  // namespace mivo
