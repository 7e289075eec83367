// The values of a decoded set, each made when it is first asked for.
//
// A value object has 88 bytes and stands for as few as 5 of the peer's. So what was only decoded costs 4 bytes a value,
// the offset of its record, and what is asked for costs its object. Objects are made by the page: with the one that is
// asked for, the numbers and short texts of its page, and no others.
//
// Threads: Find and At may run side by side, At under one lock. Everything else runs alone.
#ifndef MIVO_SRC_VALUES_LAZY_VALUES_H_
#define MIVO_SRC_VALUES_LAZY_VALUES_H_

#include <mivo/value.h>

#include <atomic>
#include <cstdint>
#include <string_view>

#include "values/small_array.h"

namespace mivo {

class LazyValues {
 public:
  LazyValues() = default;
  // Destroys all values.
  ~LazyValues();
  LazyValues(const LazyValues&) = delete;
  LazyValues& operator=(const LazyValues&) = delete;

  std::uint32_t size() const { return offsets_.size(); }
  // `offset` is that of a record that stands at the top level, or of a pair's value.
  void Add(std::uint32_t offset) { offsets_.Add(offset); }
  // For `number`, before any value is made. At kNoRecord there is no value.
  static constexpr std::uint32_t kNoRecord = UINT32_MAX;
  void Replace(std::uint32_t number, std::uint32_t offset) { offsets_[number] = offset; }

  // The value, or null while it is not made.
  MIVOValue* Find(std::uint32_t number) const {
    const Page* const page = FindPage(number);
    if (page == nullptr || (page->made.load(std::memory_order_acquire) & BitOf(number)) == 0) return nullptr;
    return page->Slot(number % kPageSize);
  }
  // Makes the value if it is not there. Null for one without a record. `bytes` are those that were decoded.
  MIVOValue* At(std::uint32_t number, std::string_view bytes);

 private:
  static constexpr std::uint32_t kPageSize = 64;
  static constexpr std::uint32_t kFewValues = 8;

  // As many values follow it as belong to it.
  struct alignas(MIVOValue) Page {
    MIVOValue* Slot(std::uint32_t index) const {
      return const_cast<MIVOValue*>(reinterpret_cast<const MIVOValue*>(this + 1)) + index;
    }
    std::atomic<std::uint64_t> made{0};
  };

  static std::uint64_t BitOf(std::uint32_t number) { return std::uint64_t{1} << number % kPageSize; }

  std::uint32_t PageCount() const { return (size() + kPageSize - 1) / kPageSize; }
  const Page* FindPage(std::uint32_t number) const {
    if (number < kPageSize) return first_.load(std::memory_order_acquire);
    const std::atomic<Page*>* const others = others_.load(std::memory_order_acquire);
    return others == nullptr ? nullptr : others[number / kPageSize - 1].load(std::memory_order_acquire);
  }
  // The place of the page's pointer; a null one is one that was never made.
  std::atomic<Page*>& PlaceOf(std::uint32_t page_number);
  Page* MakePage(std::uint32_t page_number, std::string_view bytes) const;
  static void Destroy(Page* page);

  SmallArray<std::uint32_t, kFewValues> offsets_;
  std::atomic<Page*> first_{nullptr};
  // All other pages, once one of them is needed.
  std::atomic<std::atomic<Page*>*> others_{nullptr};
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_LAZY_VALUES_H_
