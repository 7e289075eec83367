// The replies that calls have returned, and those that came for nobody.
#ifndef MIVO_CALLS_REPLY_TABLE_H_
#define MIVO_CALLS_REPLY_TABLE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"

class MIVOParams;

namespace mivo {

// One entry a call key. A set that a call has returned is the application's to read until the entry is dropped: it is
// never written to again, and one that is displaced earlier is put aside, not freed.
//
// A reply that nobody waits for is kept as it came and decoded when a call takes it.
//
// Any thread. Sets are decoded and freed without the lock.
class ReplyTable {
 public:
  enum class Retention {
    kUntilNextCall,  // a client: a call drops what is stored under its key before it begins
    kStale,          // a server: a call that gets no reply returns what is stored
  };

  explicit ReplyTable(Retention retention);
  ~ReplyTable();
  ReplyTable(const ReplyTable&) = delete;
  ReplyTable& operator=(const ReplyTable&) = delete;

  // A call with this key begins.
  void BeginCall(int key);

  // The reply of a call came: decodes and stores it; the result is the call's.
  MIVOParams* Collect(int key, std::string payload);

  // A call got no reply of its own: takes what was stored for nobody under its key, if anything was.
  std::optional<std::string> TakeUnread(int key);

  // The same, decoded. A server's call takes once more what an earlier one has returned, if there is nothing new.
  MIVOParams* CollectStored(int key);

  // A reply came that no call waits for.
  void Store(int key, std::string payload);

  // Frees everything.
  void Clear();

  // Empties the table for a close. Sets that were returned may still be read: they are freed by Clear, by the next
  // retirement, or with the table.
  void Retire();

 private:
  using Set = std::unique_ptr<MIVOParams>;
  struct Displaced {
    Set set;
    std::uint64_t at_call;
  };
  struct Entry {
    Set returned;                       // what the last call on the key got
    std::optional<std::string> unread;  // what came for nobody since
    std::uint64_t calls = 0;            // calls begun on the key
    std::vector<Displaced> displaced;   // returned earlier, and perhaps still being read
  };
  using Table = std::map<int, Entry>;

  const Retention retention_;
  Mutex mutex_;
  Table entries_ MIVO_GUARDED_BY(mutex_);
  std::vector<Table> retired_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_CALLS_REPLY_TABLE_H_
