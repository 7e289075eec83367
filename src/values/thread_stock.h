// Objects that a thread has done with, kept to be used again there: most of a set lives for one call.
//
// Every object was made with new, and may be deleted by anybody instead. There are at most so many, and they go with
// their thread. Under a checker of memory none is kept, for it would not see who uses what is gone.
#ifndef MIVO_SRC_VALUES_THREAD_STOCK_H_
#define MIVO_SRC_VALUES_THREAD_STOCK_H_

#include <cstddef>

#include "base/checked_memory.h"

namespace mivo {

template <class Object, std::size_t kMost>
class ThreadStock {
 public:
  // Null when there is none.
  static Object* Take() {
    Shelf* const shelf = shelf_;
    return shelf == nullptr || shelf->count == 0 ? nullptr : shelf->objects[--shelf->count];
  }

  // False where it is not taken; it stays the caller's then.
  static bool Give(Object* object) {
    Shelf* const shelf = shelf_ != nullptr ? shelf_ : MakeShelf();
    if (shelf == nullptr || shelf->count == kMost) return false;
    shelf->objects[shelf->count++] = object;
    return true;
  }

 private:
  struct Shelf {
    ~Shelf() {
      is_over_ = true;
      shelf_ = nullptr;
      while (count != 0)
        delete objects[--count];
    }
    std::size_t count = 0;
    Object* objects[kMost];
  };

  static Shelf* MakeShelf() {
    if (kMemoryIsChecked || is_over_) return nullptr;
    thread_local Shelf shelf;
    return shelf_ = &shelf;
  }

  // Sets are destroyed up to a thread's very end, when its other objects are gone: so what is asked each time has no
  // end of its own.
  static inline thread_local Shelf* shelf_ = nullptr;
  static inline thread_local bool is_over_ = false;
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_THREAD_STOCK_H_
