#include "pool/poller.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace mivo {

namespace {

constexpr int kEventsAtOnce = 64;

std::uint64_t Ticket(std::uint32_t place, std::uint32_t use) {
  return static_cast<std::uint64_t>(use) << 32 | place;
}
std::uint32_t PlaceOf(std::uint64_t ticket) {
  return static_cast<std::uint32_t>(ticket);
}
std::uint32_t UseOf(std::uint64_t ticket) {
  return static_cast<std::uint32_t>(ticket >> 32);
}

}  // namespace

Poller::~Poller() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int Poller::Open() {
  MutexLock lock(mutex_);
  if (descriptor_ >= 0) return 0;
  descriptor_ = ::epoll_create1(EPOLL_CLOEXEC);
  return descriptor_ >= 0 ? 0 : -errno;
}

void Poller::Wait(int timeout_ms, std::vector<Event>* events) {
  events->clear();
  int descriptor = -1;
  {
    MutexLock lock(mutex_);
    descriptor = descriptor_;
  }
  std::array<epoll_event, kEventsAtOnce> raw;
  const int count = ::epoll_wait(descriptor, raw.data(), kEventsAtOnce, timeout_ms);
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = raw[static_cast<std::size_t>(i)];
    std::shared_ptr<Source> source = Find(event.data.u64);
    if (source == nullptr) continue;
    events->push_back({std::move(source), (event.events & EPOLLIN) != 0, (event.events & EPOLLOUT) != 0,
                       (event.events & (EPOLLHUP | EPOLLERR)) != 0});
  }
}

Poller::Admission Poller::TakePlace(std::weak_ptr<Source> source) {
  MutexLock lock(mutex_);
  if (free_.empty()) {
    // Without memory for the second step there is a place too many, which does no harm. Giving one back must not fail.
    places_.emplace_back();
    free_.reserve(places_.capacity());
    free_.push_back(static_cast<std::uint32_t>(places_.size() - 1));
  }
  const std::uint32_t place = free_.back();
  free_.pop_back();
  places_[place].source = std::move(source);
  return {Ticket(place, places_[place].uses), descriptor_};
}

void Poller::GivePlaceBack(std::uint64_t ticket) {
  std::weak_ptr<Source> source;  // let go of without the lock
  MutexLock lock(mutex_);
  Place& place = places_[PlaceOf(ticket)];
  source.swap(place.source);
  ++place.uses;
  free_.push_back(PlaceOf(ticket));
}

std::shared_ptr<Source> Poller::Find(std::uint64_t ticket) {
  MutexLock lock(mutex_);
  if (PlaceOf(ticket) >= places_.size()) return nullptr;
  const Place& place = places_[PlaceOf(ticket)];
  return place.uses == UseOf(ticket) ? place.source.lock() : nullptr;
}

}  // namespace mivo
