#include "client/connector.h"

#include <string>

#include "transport/print_object.h"

namespace mivo {

void Connector::Start() {
  request_.data = this;
  state_ = State::kConnecting;
  const int status = endpoint_.kind == Endpoint::kLocal ? StartLocal() : StartTcp();
  // Then libuv does not call back.
  if (status < 0) state_ = State::kNotConnected;
}

int Connector::StartLocal() {
  const std::string path = SocketPath(endpoint_);
  if (!FitsSocketAddress(path)) return UV_ENAMETOOLONG;
  const int opened = connection_.OpenLocal();
  if (opened < 0) return opened;
  uv_pipe_connect(&request_, connection_.pipe(), path.c_str(), OnConnected);
  return 0;
}

int Connector::StartTcp() {
  const int opened = connection_.OpenTcp();
  if (opened < 0) {
    Report("uv_tcp_init error");
    return opened;
  }
  // A text that is no address leaves 0.0.0.0, which is this machine.
  sockaddr_storage address;
  if (ToSocketAddress(endpoint_, &address) < 0) Report("uv_ip4_addr error");
  const int status =
      uv_tcp_connect(&request_, connection_.tcp(), reinterpret_cast<const sockaddr*>(&address), OnConnected);
  if (status < 0) Report("uv_tcp_connect error");
  return status;
}

void Connector::OnConnected(uv_connect_t* request, int status) {
  static_cast<Connector*>(request->data)->state_ = status < 0 ? State::kNotConnected : State::kConnected;
}

void Connector::Report(const char* failure) const {
  if (endpoint_.kind == Endpoint::kTcp4) PrintDirect("%s\n", failure);
}

}  // namespace mivo
