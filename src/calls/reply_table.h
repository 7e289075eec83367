// The replies that calls have returned, and those that came for nobody.
#ifndef MIVO_CALLS_REPLY_TABLE_H_
#define MIVO_CALLS_REPLY_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/mutex.h"

class MIVOParams;

namespace mivo {

// Under which call key a reply belongs, and from which peer: a call returns nothing that somebody else has sent. A
// client has one peer at a time, and leaves it out.
struct ReplyPlace {
  // NOLINTNEXTLINE(google-explicit-constructor): where there is one peer, a key says it all.
  ReplyPlace(int call_key, int from = 0) : key(call_key), peer(from) {}
  bool operator<(const ReplyPlace& other) const { return std::tie(peer, key) < std::tie(other.peer, other.key); }
  bool operator==(const ReplyPlace& other) const { return key == other.key && peer == other.peer; }

  int key;
  int peer;
};

// A set that a call has returned is the application's to read until the entry is dropped: it is never written to again,
// and one that is displaced earlier is put aside, not freed.
//
// A reply that nobody waits for is kept as it came and decoded when a call takes it. There may be many of these that
// nobody ever takes: the oldest give way.
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

  // A call of the application begins.
  void BeginCall(ReplyPlace place);

  // The reply of a call came: decodes and stores it; the result is the call's.
  MIVOParams* Collect(ReplyPlace place, std::string payload);

  // A call got no reply of its own: takes what was stored for nobody in its place, if anything was.
  std::optional<std::string> TakeUnread(ReplyPlace place);

  // The same, decoded. A server's call takes once more what an earlier one has returned, if there is nothing new.
  MIVOParams* CollectStored(ReplyPlace place);

  // A reply came that no call waits for.
  void Store(ReplyPlace place, std::string payload);

  // A peer has gone: no later call takes what it has sent. Sets that were returned may still be read; they are freed
  // when the second call after this begins under their key, or when many others have come after them.
  void ForgetPeer(int peer);

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
    Set returned;                       // what the last call got
    std::optional<std::string> unread;  // what came for nobody since
    std::uint64_t calls = 0;            // calls begun
    std::vector<Displaced> displaced;   // returned earlier, and perhaps still being read
  };
  using Table = std::map<ReplyPlace, Entry>;
  // Of a peer that has gone.
  struct Left {
    int key;
    int calls;
    Set set;
  };

  void DropUnread(Table::iterator entry) MIVO_REQUIRES(mutex_);
  std::vector<Set> TakeOutdated(int key) MIVO_REQUIRES(mutex_);

  const Retention retention_;
  Mutex mutex_;
  Table entries_ MIVO_GUARDED_BY(mutex_);
  std::deque<ReplyPlace> unread_ MIVO_GUARDED_BY(mutex_);  // the places that have something unread, oldest first
  std::size_t unread_bytes_ MIVO_GUARDED_BY(mutex_) = 0;
  std::deque<Left> left_ MIVO_GUARDED_BY(mutex_);
  std::vector<Table> retired_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_CALLS_REPLY_TABLE_H_
