// A server of the typed layer that is killed and started again: what it has carried out is in a file that outlives it.
//
//   counting_server ADDRESS FILE
//
// Says "ready" on standard output once it listens, and ends with its standard input. Each call is one record in FILE,
// written before anything is answered: an answer that has arrived stands for a record that is there.
#include <mivo/rpc.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

class Journal {
 public:
  explicit Journal(const char* path) : descriptor_(::open(path, O_RDWR | O_APPEND | O_CLOEXEC)) {}
  bool is_open() const { return descriptor_ >= 0; }

  // In one step, which a kill comes before or after.
  void Add(std::int64_t id) const {
    if (::write(descriptor_, &id, sizeof id) != sizeof id) throw std::runtime_error("cannot count");
  }
  bool Has(std::int64_t id) const {
    std::int64_t found = 0;
    for (off_t at = 0; ::pread(descriptor_, &found, sizeof found, at) == sizeof found; at += sizeof found) {
      if (found == id) return true;
    }
    return false;
  }

 private:
  const int descriptor_;
};

[[noreturn]] void NeverReturn() {
  for (;;)
    ::pause();
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  const Journal journal(arguments[2]);
  if (!journal.is_open()) return 3;
  mivo::Server server;
  server.on("process", [] { return static_cast<int>(::getpid()); });
  server.on("count", [&journal](std::int64_t id) {
    journal.Add(id);
    return id;
  });
  server.on("count_and_hang", [&journal](std::int64_t id) {
    journal.Add(id);
    NeverReturn();
  });
  // Of two servers one after the other, the second answers.
  server.on("count_and_hang_once", [&journal](std::int64_t id) {
    const bool was_there = journal.Has(id);
    journal.Add(id);
    if (!was_there) NeverReturn();
    return static_cast<int>(::getpid());
  });
  server.on("call_back", [](mivo::Caller& caller, int number) { return caller.call<int>("yours", number); });
  server.on("post_back", [](mivo::Caller& caller, int number) { caller.post("note", number); });
  server.listen(arguments[1]);
  if (std::puts("ready") < 0 || std::fflush(stdout) != 0) return 4;
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  // Handlers may hang.
  ::_exit(0);
}
