#include "transport/served_peer.h"

#include "transport/connection.h"

namespace mivo {

namespace {
thread_local Connection* served = nullptr;
}  // namespace

ServedPeer::ServedPeer(Connection& peer) : outer_(served) {
  served = &peer;
}

ServedPeer::~ServedPeer() {
  served = outer_;
}

bool ServedPeer::MayCauseLine() {
  return served == nullptr || served->MayCauseLine();
}

}  // namespace mivo
