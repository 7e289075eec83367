#include "values/lazy_values.h"

#include <algorithm>
#include <new>

#include "values/value_maker.h"

namespace mivo {

LazyValues::~LazyValues() {
  Destroy(first_.load(std::memory_order_relaxed));
  std::atomic<Page*>* const others = others_.load(std::memory_order_relaxed);
  if (others == nullptr) return;
  for (std::uint32_t page = 1; page < PageCount(); ++page)
    Destroy(others[page - 1].load(std::memory_order_relaxed));
  delete[] others;
}

std::atomic<LazyValues::Page*>& LazyValues::PlaceOf(std::uint32_t page_number) {
  if (page_number == 0) return first_;
  std::atomic<Page*>* others = others_.load(std::memory_order_relaxed);
  if (others == nullptr) {
    others = new std::atomic<Page*>[PageCount() - 1]();
    others_.store(others, std::memory_order_release);
  }
  return others[page_number - 1];
}

MIVOValue* LazyValues::At(std::uint32_t number, std::string_view bytes) {
  if (offsets_[number] == kNoRecord) return nullptr;
  std::atomic<Page*>& place = PlaceOf(number / kPageSize);
  Page* page = place.load(std::memory_order_relaxed);
  if (page == nullptr) {
    page = MakePage(number / kPageSize, bytes);
    place.store(page, std::memory_order_release);
  }
  const std::uint64_t made = page->made.load(std::memory_order_relaxed);
  if ((made & BitOf(number)) == 0) {
    if (!MakeValue(bytes, offsets_[number], page->Slot(number % kPageSize))) return nullptr;
    page->made.store(made | BitOf(number), std::memory_order_release);
  }
  return page->Slot(number % kPageSize);
}

LazyValues::Page* LazyValues::MakePage(std::uint32_t page_number, std::string_view bytes) const {
  const std::uint32_t first = page_number * kPageSize;
  const std::uint32_t count = std::min(size() - first, kPageSize);
  Page* const page = new (::operator new(sizeof(Page) + count * sizeof(MIVOValue))) Page;
  std::uint64_t made = 0;
  try {
    MakeSmallValues(bytes, offsets_.data() + first, count, page->Slot(0), made);
  } catch (const std::bad_alloc&) {
    // What is not made stays to be asked for, the one that is asked for now among it.
  }
  page->made.store(made, std::memory_order_relaxed);
  return page;
}

void LazyValues::Destroy(Page* page) {
  if (page == nullptr) return;
  std::uint64_t made = page->made.load(std::memory_order_relaxed);
  for (MIVOValue* value = page->Slot(0); made != 0; made >>= 1, ++value) {
    if ((made & 1) != 0) value->~MIVOValue();
  }
  page->~Page();
  ::operator delete(page);
}

}  // namespace mivo
