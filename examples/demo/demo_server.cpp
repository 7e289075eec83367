// The demo's server: one process, the same methods over a local socket, TCP v4 and TCP v6. run.sh starts it.
#include <arpa/inet.h>
#include <mivo/mivo.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

// A method whose body is a function. A client's arguments are whatever it likes to send: every body looks at the types
// before it reads the values.
class Method : public IServerMethod {
 public:
  using Body = std::function<void(int client_id, MIVOParams* request, MIVOParams* reply)>;
  explicit Method(Body body) : body_(std::move(body)) {}
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override { body_(client_id, request, reply); }

 private:
  const Body body_;
};

int IntAt(const MIVOParams& params, int index, int otherwise) {
  const MIVOValue* const value = params.GetValue(index);
  return value != nullptr && value->IsInt() ? value->GetInt() : otherwise;
}

std::string StringAt(const MIVOParams& params, int index) {
  const MIVOValue* const value = params.GetValue(index);
  return value != nullptr && value->IsString() ? value->GetString() : "";
}

// ---- echo, sum, readings of this machine ----

void Echo(int, MIVOParams* request, MIVOParams* reply) {
  long length = 0;
  for (int i = 0; i < request->ParamsSize(); ++i) {
    MIVOValue& value = *request->GetValue(i);
    if (value.IsInt()) reply->AddInt(value.GetInt());
    if (value.IsBool()) reply->AddBool(value.GetBool());
    if (value.IsDouble()) reply->AddDouble(value.GetDouble());
    if (value.IsString()) reply->AddString(value.GetString());
    if (value.IsStream()) {
      const char* const bytes = value.GetStream(length);
      reply->AddStream(bytes, length);
    }
    if (value.IsList()) {
      ListParams* const list = reply->CreateListParams();
      for (const MIVOValue* const element : *value.GetList()) {
        if (element->IsInt()) list->AddInt(element->GetInt());
        if (element->IsBool()) list->AddBool(element->GetBool());
        if (element->IsDouble()) list->AddDouble(element->GetDouble());
        if (!element->IsString() && !element->IsStream()) continue;
        const char* const bytes = element->GetStream(length);
        if (element->IsString()) list->AddString(bytes, length);
        if (element->IsStream()) list->AddStream(bytes, length);
      }
      reply->AddList(list);
    }
  }
  for (const auto& [key, value] : *request->GetMapPtr()) {
    if (value->IsInt()) reply->AddKeyValueInt(key, value->GetInt());
    if (value->IsBool()) reply->AddKeyValueBool(key, value->GetBool());
    if (value->IsDouble()) reply->AddKeyValueDouble(key, value->GetDouble());
    if (value->IsString()) reply->AddKeyValueString(key, value->GetString());
    if (value->IsStream()) {
      const char* const bytes = value->GetStream(length);
      reply->AddKeyValueStream(key, bytes, length);
    }
  }
}

void Sum(int, MIVOParams* request, MIVOParams* reply) {
  MIVOValue* const list = request->GetValue(0);
  if (list == nullptr || !list->IsList()) {
    reply->AddKeyValueString("error", "sum takes a list");
    return;
  }
  double sum = 0;
  for (const MIVOValue* const element : *list->GetList()) {
    if (element->IsInt()) sum += element->GetInt();
    if (element->IsDouble()) sum += element->GetDouble();
  }
  reply->AddDouble(sum);
}

std::string FirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

void Machine(int, MIVOParams*, MIVOParams* reply) {
  reply->AddKeyValueString("kernel", FirstLine("/proc/sys/kernel/osrelease").c_str());
  reply->AddKeyValueString("load", FirstLine("/proc/loadavg").c_str());
  reply->AddKeyValueString("memory", FirstLine("/proc/meminfo").c_str());
  reply->AddKeyValueInt("pid", ::getpid());
}

void ListDirectory(int, MIVOParams* request, MIVOParams* reply) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(StringAt(*request, 0), error), end; !error && entry != end;
       entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  if (error) {
    reply->AddKeyValueString("error", error.message().c_str());
    return;
  }
  std::sort(names.begin(), names.end());
  ListParams* const list = reply->CreateListParams();
  for (const std::string& name : names)
    list->AddString(name.data(), static_cast<long>(name.size()));
  reply->AddList(list);
}

// ---- a method that takes longer than its caller waits ----

// Says to the caller that it runs, then waits for "go". Handlers still running keep a closing server waiting, so a
// method that waits has to look whether its server still serves.
class Slow {
 public:
  void Run(IServer* server, int client_id, MIVOParams* reply) {
    server->PostMsg(client_id, "slow_started", nullptr, 0);
    std::unique_lock<std::mutex> lock(mutex_);
    while (tokens_ == 0 && server->isok())
      changed_.wait_for(lock, std::chrono::milliseconds(20));
    if (tokens_ > 0) --tokens_;
    reply->AddString("slow has ended");
  }

  void Go() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++tokens_;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int tokens_ = 0;
};

// ---- subscribers ----

// A client is known by its id, and by the server that it is connected to.
class Subscribers {
 public:
  void Add(IServer* server, int client_id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    clients_.emplace(server, client_id);
    changed_.notify_all();
  }

  // For clients that have subscribed and for those that have not.
  void Remove(IServer* server, int client_id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    clients_.erase({server, client_id});
    changed_.notify_all();
  }

  // Takes a reading and posts it to everybody; returns to how many.
  int Publish() {
    MIVOParams reading;
    std::set<std::pair<IServer*, int>> clients;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      reading.AddInt(++readings_);
      clients = clients_;
    }
    reading.AddString(FirstLine("/proc/loadavg").c_str());
    for (const auto& [server, client_id] : clients)
      server->PostMsg(client_id, "reading", &reading, 0);
    return static_cast<int>(clients.size());
  }

  // Waits until there are `count`, and returns how many there are.
  int Await(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20),
                      [&] { return clients_.size() == static_cast<std::size_t>(count); });
    return static_cast<int>(clients_.size());
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::pair<IServer*, int>> clients_;
  int readings_ = 0;
};

// ---- a file, piece by piece ----

// "put" takes an offset and bytes, "get" an offset and a length. Offsets below 2 GiB: they travel as int.
class Store {
 public:
  explicit Store(std::string path) : path_(std::move(path)) {}

  void Put(MIVOParams* request, MIVOParams* reply) {
    const MIVOValue* const piece = request->GetValue(1);
    const int offset = IntAt(*request, 0, -1);
    if (offset < 0 || piece == nullptr || !piece->IsStream()) return;
    long length = 0;
    const char* const bytes = piece->GetStream(length);
    const auto mode = std::ios::binary | std::ios::out | (offset == 0 ? std::ios::trunc : std::ios::in);
    std::fstream file(path_, mode);
    file.seekp(offset);
    file.write(bytes, length);
    file.close();
    if (file) reply->AddInt(static_cast<int>(length));
  }

  void Get(MIVOParams* request, MIVOParams* reply) {
    const int offset = IntAt(*request, 0, -1);
    const int length = IntAt(*request, 1, -1);
    if (offset < 0 || length < 0 || length > kLongestPiece) return;
    std::string bytes(static_cast<std::size_t>(length), '\0');
    std::ifstream file(path_, std::ios::binary);
    file.seekg(offset);
    file.read(bytes.data(), length);
    reply->AddStream(bytes.data(), static_cast<long>(file.gcount()));
  }

  // With the tool that everybody trusts.
  void Sha256(MIVOParams* reply) {
    char digest[65] = "";
    FILE* const pipe = ::popen(("sha256sum '" + path_ + "'").c_str(), "r");
    if (pipe != nullptr && std::fscanf(pipe, "%64s", digest) == 1) reply->AddString(digest);
    if (pipe != nullptr) ::pclose(pipe);
  }

 private:
  static constexpr int kLongestPiece = 64 << 20;

  const std::string path_;
};

// ---- putting it together ----

struct Shared {
  explicit Shared(const std::string& store_path) : store(store_path) {}

  Slow slow;
  Subscribers subscribers;
  Store store;
  int tcp4_port = 0;  // 0: this machine has no such loopback address
  int tcp6_port = 0;
};

// Asks a client something while that client waits for us, and passes its answer on.
void AskBack(IServer* server, int client_id, MIVOParams* reply) {
  MIVOParams question;
  question.AddString("What is your name?");
  const MIVOParams* const answer = server->SendMsg(client_id, "question", &question, 0, 5000);
  // Null: no answer came. Otherwise the set stays the server's.
  if (answer != nullptr) reply->AddString(("client says: " + StringAt(*answer, 0)).c_str());
}

// The server deletes its handlers when it closes.
void Offer(IServer* server, Shared& shared, const std::function<void()>& stop) {
  const auto offer = [server](const char* name, Method::Body body) {
    server->method(name, new Method(std::move(body)));
  };

  offer("echo", Echo);
  offer("sum", Sum);
  offer("machine", Machine);
  offer("list", ListDirectory);
  offer("slow", [server, &shared](int id, MIVOParams*, MIVOParams* reply) { shared.slow.Run(server, id, reply); });
  offer("go", [&shared](int, MIVOParams*, MIVOParams*) { shared.slow.Go(); });
  offer("ask_back", [server](int id, MIVOParams*, MIVOParams* reply) { AskBack(server, id, reply); });

  offer("subscribe", [server, &shared](int id, MIVOParams*, MIVOParams*) { shared.subscribers.Add(server, id); });
  offer("await_subscribers", [&shared](int, MIVOParams* request, MIVOParams* reply) {
    reply->AddInt(shared.subscribers.Await(IntAt(*request, 0, 0)));
  });
  offer("publish", [&shared](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(shared.subscribers.Publish()); });
  // Called by the server itself, whenever a connection has ended.
  offer("s_c_closed", [server, &shared](int id, MIVOParams*, MIVOParams*) { shared.subscribers.Remove(server, id); });

  offer("put", [&shared](int, MIVOParams* request, MIVOParams* reply) { shared.store.Put(request, reply); });
  offer("get", [&shared](int, MIVOParams* request, MIVOParams* reply) { shared.store.Get(request, reply); });
  offer("sha256", [&shared](int, MIVOParams*, MIVOParams* reply) { shared.store.Sha256(reply); });

  offer("tcp_ports", [&shared](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(shared.tcp4_port);
    reply->AddInt(shared.tcp6_port);
  });
  offer("stop", [stop](int, MIVOParams*, MIVOParams*) { stop(); });
}

// A port of the loopback address that is free at this moment, 0 if there is no such address.
int FreePort(int family) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* const v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address);
  address.ss_family = static_cast<sa_family_t>(family);
  if (family == AF_INET) {
    size = sizeof *v4;
    v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  } else {
    size = sizeof *v6;
    v6->sin6_addr = in6addr_loopback;
  }
  const int probe = ::socket(family, SOCK_STREAM, 0);
  if (probe < 0) return 0;
  int port = 0;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(probe, generic, size) == 0 && ::getsockname(probe, generic, &size) == 0) {
    port = ntohs(family == AF_INET ? v4->sin_port : v6->sin6_port);
  }
  ::close(probe);
  return port;
}

// Starts on a free port, and returns it. Somebody may take the port between the look and the start: then on another
// one.
int StartOnFreePort(int family, const std::function<bool(const char* port)>& start) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    const int port = FreePort(family);
    if (port == 0) break;
    if (start(std::to_string(port).c_str())) return port;
  }
  return 0;
}

struct Destroy {
  void operator()(IServer* server) const { DestroyServer(server); }
};
using Server = std::unique_ptr<IServer, Destroy>;

int Serve(const std::string& socket_name, const std::string& store_path) {
  Shared shared(store_path);
  const Server local(CreateServer());
  const Server tcp4(CreateServer());
  const Server tcp6(CreateServer());
  // Ends run() below.
  const auto stop = [&local] { local->closeasync(); };
  for (const Server* const server : {&local, &tcp4, &tcp6}) {
    (*server)->log(nullptr, 0);
    Offer(server->get(), shared, stop);
  }

  // Two servers on threads of their own; the third on this one, and last: whoever reaches it finds everything in place.
  shared.tcp4_port =
      StartOnFreePort(AF_INET, [&](const char* port) { return tcp4->InitMIVOServerTcp4("127.0.0.1", port); });
  shared.tcp6_port = StartOnFreePort(AF_INET6, [&](const char* port) { return tcp6->InitMIVOServerTcp6("::1", port); });
  if (!local->StartMIVOServer(socket_name.c_str())) {
    std::cerr << "demo_server: cannot listen on /tmp/echo.sock." << socket_name << "\n";
    return 1;
  }
  local->run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 1 && arguments[0] == "--help") {
    std::cout << "usage: demo_server <socket name> <file>\n\n"
                 "Listens on /tmp/echo.sock.<socket name> and on a free port of 127.0.0.1 and ::1, until a client asks "
                 "it to\n"
                 "stop. Keeps the file that clients send under <file>.\n";
    return 0;
  }
  if (arguments.size() != 2) {
    std::cerr << "usage: demo_server <socket name> <file>\n";
    return 2;
  }
  return Serve(arguments[0], arguments[1]);
}
