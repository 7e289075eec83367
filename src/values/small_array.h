// An array that grows, whose first elements need no memory of their own: most sets are small.
#ifndef MIVO_SRC_VALUES_SMALL_ARRAY_H_
#define MIVO_SRC_VALUES_SMALL_ARRAY_H_

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace mivo {

template <class Element, std::uint32_t kFew>
class SmallArray {
  static_assert(std::is_trivially_copyable_v<Element>);

 public:
  SmallArray() = default;
  ~SmallArray() {
    if (elements_ != few_) std::free(elements_);
  }
  SmallArray(const SmallArray&) = delete;
  SmallArray& operator=(const SmallArray&) = delete;

  std::uint32_t size() const { return size_; }
  const Element* data() const { return elements_; }
  Element& operator[](std::uint32_t index) { return elements_[index]; }
  const Element& operator[](std::uint32_t index) const { return elements_[index]; }

  void Add(const Element& element) {
    if (size_ == capacity_) Grow();
    elements_[size_++] = element;
  }

 private:
  void Grow() {
    const std::size_t bytes = 2 * std::size_t{capacity_} * sizeof(Element);
    // Wrapped around: there is no memory for that many.
    if (bytes == 0) throw std::bad_alloc();
    void* const grown = elements_ == few_ ? std::malloc(bytes) : std::realloc(elements_, bytes);
    if (grown == nullptr) throw std::bad_alloc();
    if (elements_ == few_) std::memcpy(grown, few_, sizeof few_);
    elements_ = static_cast<Element*>(grown);
    capacity_ *= 2;
  }

  std::uint32_t size_ = 0;
  std::uint32_t capacity_ = kFew;
  Element* elements_ = few_;
  Element few_[kFew] = {};
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_SMALL_ARRAY_H_
