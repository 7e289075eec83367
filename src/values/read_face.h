// The read face of a set: what its bytes decoded to.
//
// Decoding checks the bytes and notes where the values stand; the objects are made when they are asked for, from bytes
// that must therefore still be those that were decoded. They lie in the set's buffer, as long as nobody else can change
// it; before that becomes possible the face is given bytes of its own.
//
// A face is shared by a set and the copies made of it, and goes with the last of them.
//
// Threads: const operations may run side by side, whichever sets they are called for.
#ifndef MIVO_SRC_VALUES_READ_FACE_H_
#define MIVO_SRC_VALUES_READ_FACE_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "values/key_index.h"
#include "values/lazy_values.h"

class MIVOValue;

namespace mivo {

class ReadFace {
 public:
  // Whose are the bytes?
  enum class Bytes {
    kTheSets,    // its buffer's: the face is told before they change
    kSomebodys,  // they outlive the set and do not change
    kOwn,        // the face has them
  };

  // Decodes; the caller holds one reference.
  ReadFace(std::string_view bytes, Bytes whose);
  ReadFace(const ReadFace&) = delete;
  ReadFace& operator=(const ReadFace&) = delete;

  void AddReference() { references_.fetch_add(1, std::memory_order_relaxed); }
  // The last one destroys the face.
  void Release() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  bool is_well_formed() const { return is_well_formed_; }

  std::uint32_t positional_count() const { return positional_.size(); }
  MIVOValue* Positional(std::uint32_t number) const { return ValueOf(positional_, number); }

  std::uint32_t keyed_count() const { return keys_.size(); }
  std::string_view Key(std::uint32_t number) const { return keys_.Key(bytes_.load(std::memory_order_acquire), number); }
  // Null for a key that has lost its value.
  MIVOValue* Keyed(std::uint32_t number) const { return ValueOf(keyed_, number); }
  // Null also for a key that is not there.
  MIVOValue* Find(std::string_view key) const;

  // To be called before the set's buffer may change.
  void BeforeTheBufferChanges() { TakeCopy(Bytes::kTheSets); }
  // The same when the buffer has got new bytes already: `bytes` is what it was.
  void TakeBuffer(std::string bytes);
  // To be called before another set is given this face.
  void BeforeItIsShared() { TakeCopy(Bytes::kSomebodys); }

 private:
  class Indexer;

  ~ReadFace() = default;
  MIVOValue* ValueOf(const LazyValues& values, std::uint32_t number) const {
    MIVOValue* const value = values.Find(number);
    return value != nullptr ? value : Make(values, number);
  }
  MIVOValue* Make(const LazyValues& values, std::uint32_t number) const;
  // Unless the bytes are safer than with `whose`.
  void TakeCopy(Bytes whose);

  std::atomic<int> references_{1};
  bool is_well_formed_ = false;
  mutable Mutex mutex_;
  // The same bytes wherever it points; a reader that still has the former place may go on reading there, because
  // nobody changes a set while another thread reads it.
  std::atomic<const char*> bytes_;
  const std::size_t size_;
  Bytes whose_ MIVO_GUARDED_BY(mutex_);
  std::string own_bytes_ MIVO_GUARDED_BY(mutex_);

  LazyValues positional_;
  LazyValues keyed_;  // by the numbers of keys_
  KeyIndex keys_;
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_READ_FACE_H_
