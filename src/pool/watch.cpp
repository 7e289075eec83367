#include "pool/watch.h"

#include <sys/epoll.h>

#include <cerrno>
#include <utility>

#include "pool/poller.h"

namespace mivo {

namespace {

epoll_event EventFor(bool reading, bool writing, std::uint64_t ticket) {
  epoll_event event{};
  event.events = (reading ? EPOLLIN : 0U) | (writing ? EPOLLOUT : 0U);
  event.data.u64 = ticket;
  return event;
}

}  // namespace

int Watch::Start(Poller& poller, int descriptor, std::weak_ptr<Source> source) {
  const Poller::Admission admission = poller.TakePlace(std::move(source));
  int error = 0;
  {
    MutexLock lock(mutex_);
    epoll_event event = EventFor(reading_, writing_, admission.ticket);
    if (::epoll_ctl(admission.descriptor, EPOLL_CTL_ADD, descriptor, &event) == 0) {
      poller_ = &poller;
      set_ = admission.descriptor;
      descriptor_ = descriptor;
      ticket_ = admission.ticket;
      return 0;
    }
    error = errno;
  }
  poller.GivePlaceBack(admission.ticket);
  return -error;
}

void Watch::SetReading(bool on) {
  MutexLock lock(mutex_);
  if (reading_ == on && !muted_) return;
  reading_ = on;
  if (poller_ == nullptr) return;
  if (!muted_) {
    Apply();
  } else if (on) {
    epoll_event event = EventFor(reading_, writing_, ticket_);
    muted_ = ::epoll_ctl(set_, EPOLL_CTL_ADD, descriptor_, &event) != 0;
  }
}

void Watch::SetWriting(bool on) {
  MutexLock lock(mutex_);
  if (writing_ == on) return;
  writing_ = on;
  if (poller_ != nullptr && !muted_) Apply();
}

// Not refused for a descriptor that is in the set.
void Watch::Apply() {
  epoll_event event = EventFor(reading_, writing_, ticket_);
  ::epoll_ctl(set_, EPOLL_CTL_MOD, descriptor_, &event);
}

void Watch::Mute() {
  MutexLock lock(mutex_);
  if (poller_ == nullptr || muted_) return;
  ::epoll_ctl(set_, EPOLL_CTL_DEL, descriptor_, nullptr);
  muted_ = true;
}

void Watch::Stop() {
  Poller* poller = nullptr;
  std::uint64_t ticket = 0;
  {
    MutexLock lock(mutex_);
    if (poller_ == nullptr) return;
    if (!muted_) ::epoll_ctl(set_, EPOLL_CTL_DEL, descriptor_, nullptr);
    poller = std::exchange(poller_, nullptr);
    ticket = ticket_;
  }
  poller->GivePlaceBack(ticket);
}

}  // namespace mivo
