#include "values/encoding_buffer.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "base/spare_memory.h"
#include "values/thread_stock.h"

namespace mivo {
namespace {

// Small sets double their room more quickly, for they are copied at each step.
constexpr std::size_t kSmallestRoom = 240;
constexpr std::size_t kFewBytes = 2000;

// What is taken into use at once is filled with zeros first, so it stays in proportion to what there is.
constexpr std::size_t kSmallestStep = 256;

constexpr std::size_t kLongestSpare = 16384;
using SpareBuffers = ThreadStock<EncodingBuffer, 4>;

}  // namespace

EncodingBuffer* EncodingBuffer::New() {
  EncodingBuffer* const spare = SpareBuffers::Take();
  return spare != nullptr ? spare : new EncodingBuffer;
}

// One whose string was given away goes: somebody may still have its address.
void EncodingBuffer::Delete(EncodingBuffer* buffer) {
  if (buffer == nullptr) return;
  if (buffer->bytes_.capacity() >= kLeastSpare) GiveSpareString(std::exchange(buffer->bytes_, std::string()));
  buffer->Clear();
  if (buffer->shown_ || buffer->bytes_.capacity() > kLongestSpare || !SpareBuffers::Give(buffer)) delete buffer;
}

void EncodingBuffer::Reserve(std::size_t size, std::initializer_list<std::string_view*> sources, std::string& before) {
  const std::string_view former = view();
  const std::size_t needed = former.size() + size;
  if (!is_borrowed() && bytes_.capacity() >= needed) return;
  // What is large is often followed by a few small records, and by the envelope.
  const std::size_t wanted =
      std::max({needed + kSmallestRoom, (former.size() < kFewBytes ? 4 : 2) * former.size(), kSmallestRoom});
  std::string grown = TakeSpareString(wanted);
  grown.reserve(wanted);
  grown.append(former);
  const std::less<> less;
  for (std::string_view* source : sources) {
    if (less(source->data(), former.data()) || !less(source->data(), former.data() + former.size())) continue;
    const auto offset = static_cast<std::size_t>(source->data() - former.data());
    *source = std::string_view(grown.data() + offset, source->size());
  }
  size_ = open_ = former.size();
  borrowed_ = std::string_view();
  before = std::exchange(bytes_, std::move(grown));
}

void EncodingBuffer::Open(std::size_t size) {
  open_ = std::min(bytes_.capacity(), size_ + size + std::max(size_, kSmallestStep));
  bytes_.resize(open_);
}

void EncodingBuffer::Append(std::string_view bytes) {
  Trim();
  bytes_.append(bytes);
  size_ = open_ = bytes_.size();
}

std::string& EncodingBuffer::Text() {
  if (!shown_) {
    Own();
    Trim();
    shown_ = true;
    size_ = open_ = 0;
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
  Measure();
}

void EncodingBuffer::Adopt(std::string bytes) {
  if (bytes_.capacity() >= kLeastSpare && !shown_) GiveSpareString(std::move(bytes_));
  bytes_ = std::move(bytes);
  borrowed_ = std::string_view();
  Measure();
}

void EncodingBuffer::Borrow(std::string_view bytes) {
  if (shown_ || bytes.empty()) {
    Assign(bytes);
    return;
  }
  bytes_.clear();
  Measure();
  borrowed_ = bytes;
}

std::string EncodingBuffer::Take() {
  Own();
  if (!shown_) Trim();
  std::string taken = std::move(bytes_);
  bytes_.clear();
  Measure();
  return taken;
}

void EncodingBuffer::Own() {
  if (!is_borrowed()) return;
  Assign(borrowed_);
}

void EncodingBuffer::Trim() {
  if (open_ != size_) bytes_.resize(size_);
  open_ = size_;
}

void EncodingBuffer::Measure() {
  size_ = open_ = shown_ ? 0 : bytes_.size();
}

}  // namespace mivo
