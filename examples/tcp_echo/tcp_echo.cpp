// An echo server on the plain TCP server: no messages, no methods, only bytes. Start it, and talk to it from another
// terminal:
//
//   tcp_echo 7777
//   nc 127.0.0.1 7777
//
// A client that leaves while an answer is still on its way to it ends this program with status 255: so it goes with
// writes of the plain TCP server that fail.
#include <mivo/tcpserver.h>
#include <uv.h>

#include <charconv>
#include <iostream>
#include <map>
#include <string>
#include <string_view>

namespace {

constexpr int kBacklog = 128;  // connections that may wait to be accepted

CTcpServer* server = nullptr;
std::map<int, std::string> waiting;  // for each client: what came while an answer was still under way

// One message at a time: the next goes out when the one before is through.
void Answer(int id) {
  const auto client = server->clients.find(id);
  if (client == server->clients.end()) {
    waiting.erase(id);
    return;
  }
  std::string& text = waiting[id];
  const auto* const stream = reinterpret_cast<const uv_stream_t*>(client->second->handle);
  if (text.empty() || uv_stream_get_write_queue_size(stream) > 0) return;
  server->Write(id, text.data(), static_cast<int>(text.size()));
  text.clear();
}

void OnReceive(int id, const char* bytes, int count) {
  waiting[id].append(bytes, static_cast<std::size_t>(count));
  Answer(id);
}

void OnConnect(int id) {
  std::cout << "client " << id << std::endl;
  server->SetRecvCallback(id, OnReceive);
}

// At every turn of the loop: an answer may be through by now.
void OnTurn(uv_check_t*) {
  for (auto next = waiting.begin(); next != waiting.end();)
    Answer((next++)->first);
}

int PortFrom(std::string_view text) {
  int port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port > 0 && port < 65536 ? port : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view argument = argc == 2 ? argv[1] : "";
  const int port = PortFrom(argument);
  if (port < 0) {
    std::cout << "usage: tcp_echo PORT\n\nSends back what its clients send. Listens on 127.0.0.1, PORT 1 to 65535.\n";
    return argument == "--help" ? 0 : 2;
  }

  uv_check_t each_turn;
  CTcpServer echo(uv_default_loop());
  server = &echo;
  echo.SetConnectCallback(OnConnect);
  // What StartTcp4 does, one by one, to say something in between.
  if (!echo.Init() || !echo.BindTcp4("127.0.0.1", port) || !echo.Listen(kBacklog)) {
    std::cout << "cannot listen on port " << port << "\n";
    return 1;
  }
  std::cout << "listening on port " << port << "; end with Ctrl-C" << std::endl;
  uv_check_init(echo.loop, &each_turn);
  uv_check_start(&each_turn, OnTurn);
  return echo.Run(UV_RUN_DEFAULT) ? 0 : 1;  // for as long as the program runs: each_turn keeps the loop busy
}
