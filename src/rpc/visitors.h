// Who is inside something that is about to end.
#ifndef MIVO_RPC_VISITORS_H_
#define MIVO_RPC_VISITORS_H_

#include <atomic>
#include <chrono>
#include <thread>

namespace mivo {
namespace rpc {

class Visitors {
 public:
  class Visit {
   public:
    explicit Visit(Visitors& visitors) : visitors_(visitors) { visitors_.Enter(); }
    ~Visit() { visitors_.Leave(); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

   private:
    Visitors& visitors_;
  };

  void Enter() { ++count_; }
  void Leave() { --count_; }

  // Whether nobody is inside, now or soon.
  bool HaveLeftSoon() const {
    constexpr std::chrono::milliseconds kSoon{20};
    constexpr std::chrono::milliseconds kStep{1};
    const auto end = std::chrono::steady_clock::now() + kSoon;
    // Having left, nobody must touch anything here any more, so nobody tells.
    for (; count_ > 0; std::this_thread::sleep_for(kStep)) {
      if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
  }

 private:
  std::atomic<int> count_{0};
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_VISITORS_H_
