// A host of the library, started by tests as a process of its own. It knows nothing but the public interface. The first
// argument says what to show; the exit status is 0 when all was as it should be, and what was not is printed.
#include <mivo/mivo.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

class Six : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams* reply) override { reply->AddInt(6); }
};

int Fail(const std::string& what) {
  std::printf("%s\n", what.c_str());
  std::fflush(stdout);
  return 1;
}

// The transports of this program, by the argument that chooses them.
enum Transport { kLocal, kTcp4, kTcp6, kTransports };

std::string FreePort(Transport transport) {
  const int family = transport == kTcp4 ? AF_INET : AF_INET6;
  sockaddr_storage address{};
  address.ss_family = static_cast<sa_family_t>(family);
  socklen_t size = transport == kTcp4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  const int descriptor = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size);
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
  close(descriptor);
  const in_port_t port = transport == kTcp4 ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                            : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port;
  return std::to_string(ntohs(port));
}

bool InitServer(IServer* server, Transport transport, const std::string& name) {
  switch (transport) {
    case kTcp4:
      return server->InitMIVOServerTcp4("127.0.0.1", name.c_str());
    case kTcp6:
      return server->InitMIVOServerTcp6("::1", name.c_str());
    default:
      return server->InitMIVOServer(name.c_str());
  }
}

bool InitClient(IClient* client, Transport transport, const std::string& name) {
  switch (transport) {
    case kTcp4:
      return client->InitMIVOClientTcp4("127.0.0.1", name.c_str(), true);
    case kTcp6:
      return client->InitMIVOClientTcp6("::1", name.c_str(), true);
    default:
      return client->InitMIVOClient(name.c_str(), true);
  }
}

struct Pair {
  IServer* server = nullptr;
  IClient* client = nullptr;

  bool Start(Transport transport) {
    char no_text[] = "";
    // A port that was free may be taken when the server wants it.
    for (int tries = 0; tries < 20; ++tries) {
      static int counter = 0;
      const std::string name =
          transport == kLocal ? std::to_string(getpid() % 200000 * 10000 + 9000 + counter++) : FreePort(transport);
      server = CreateServer();
      server->log(no_text, 0);
      server->method("six", new Six);
      client = CreateClient();
      client->log(no_text, 0);
      client->method("six", new Six);
      if (InitServer(server, transport, name) && InitClient(client, transport, name)) return true;
      Destroy();
    }
    return false;
  }

  bool Call() const {
    const MIVOParams* const reply = client->SendMsg("six", nullptr, 0, 60000);
    return reply->GetValue(0) != nullptr && reply->GetValue(0)->IsInt() && reply->GetValue(0)->GetInt() == 6;
  }

  void Destroy() const {
    DestroyClient(client);
    DestroyServer(server);
  }
};

// A life of a client and a server, with calls, a post and a call that times out, and the server going away first.
bool Use(Transport transport) {
  Pair pair;
  if (!pair.Start(transport)) return false;
  bool good = pair.Call();
  pair.client->PostMsg("six", nullptr, 0);
  MIVOParams large;
  const std::string bytes(100000, 'x');
  large.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  const MIVOParams* const reply = pair.client->SendMsgEx("six", &large, 0, 60000);
  good = good && reply->GetValue(0) != nullptr;
  DestroyServer(pair.server);
  for (int i = 0; i < 20; ++i)
    pair.client->PostMsg("six", nullptr, 0);
  DestroyClient(pair.client);
  return good;
}

// --- What the process is like around the library

std::string Describe() {
  std::ostringstream all;
  for (int number = 1; number <= 64; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) != 0) continue;
    all << "signal " << number << ": " << reinterpret_cast<void*>(action.sa_handler) << ' ' << action.sa_flags << '\n';
  }
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  for (int number = 1; number <= 64; ++number)
    all << (sigismember(&mask, number) == 1 ? 'x' : '-');
  const mode_t creation_mask = umask(0);
  umask(creation_mask);
  all << "\numask " << creation_mask << "\nlocale " << setlocale(LC_ALL, nullptr) << ' ' << std::locale().name()
      << '\n';
  char folder[4096];
  all << "folder " << (getcwd(folder, sizeof folder) != nullptr ? folder : "?") << '\n';
  for (char** variable = environ; *variable != nullptr; ++variable)
    all << *variable << '\n';
  return all.str();
}

int ShowSettings(bool ignoring) {
  signal(SIGPIPE, ignoring ? SIG_IGN : SIG_DFL);
  signal(SIGUSR1, [](int) {});
  sigset_t some;
  sigemptyset(&some);
  sigaddset(&some, SIGUSR2);
  if (ignoring) sigaddset(&some, SIGPIPE);
  pthread_sigmask(SIG_SETMASK, &some, nullptr);
  umask(027);
  setlocale(LC_ALL, "C.UTF-8");
  setenv("SOME_VARIABLE", "some value", 1);
  if (chdir("/tmp") != 0) return Fail("no /tmp");
  const std::string before = Describe();
  for (int transport = 0; transport < kTransports; ++transport) {
    if (!Use(static_cast<Transport>(transport))) return Fail("calls do not work");
    const std::string after = Describe();
    if (after != before) return Fail("before:\n" + before + "after:\n" + after);
  }
  return 0;
}

// --- The two ends of a process

// Chosen before main; the constructor and the destructor of a static run outside of it.
bool outside_main = false;

class UsedOutsideMain {
 public:
  UsedOutsideMain() {
    if (!ChosenBy("statics")) return;
    outside_main = true;
    Check();
  }
  ~UsedOutsideMain() {
    if (outside_main) Check();
  }

 private:
  // The arguments, before main has them.
  static bool ChosenBy(const char* mode) {
    FILE* const file = std::fopen("/proc/self/cmdline", "re");
    char text[4096] = {};
    const std::size_t size = file != nullptr ? std::fread(text, 1, sizeof text - 1, file) : 0;
    if (file != nullptr) std::fclose(file);
    const std::size_t first = std::strlen(text) + 1;
    return first < size && std::strcmp(text + first, mode) == 0;
  }

  static void Check() {
    for (int transport = 0; transport < kTransports; ++transport) {
      if (!Use(static_cast<Transport>(transport))) _exit(Fail("calls do not work outside main"));
    }
    std::printf("used\n");
    std::fflush(stdout);
  }
} used_outside_main;

int UseAtExit() {
  std::atexit([] {
    if (!Use(kLocal)) _exit(Fail("calls do not work at exit"));
    std::printf("used\n");
    std::fflush(stdout);
  });
  return 0;
}

// Ends with everything alive: connected, and with callers waiting if so wished.
int Leave(Transport transport, bool with_callers) {
  static Pair pair;
  if (!pair.Start(transport) || !pair.Call()) return Fail("calls do not work");
  if (with_callers) {
    std::thread([] { pair.client->SendMsgFast("silence", nullptr, 0, 0); }).detach();
    std::thread([] {
      for (;;)
        pair.client->SendMsgFast("six", nullptr, 0, 1000);
    }).detach();
    if (!pair.Call()) return Fail("calls do not work");
  }
  return 0;
}

// A server for other processes, until standard input ends.
int Serve(Transport transport, const char* name) {
  IServer* const server = CreateServer();
  char no_text[] = "";
  server->log(no_text, 0);
  server->method("six", new Six);
  if (!InitServer(server, transport, name)) return Fail("cannot listen");
  std::printf("ready\n");
  std::fflush(stdout);
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  DestroyServer(server);
  return 0;
}

// One line of the library's, then nothing until standard input ends.
int PrintAndWait() {
  IClient* const client = CreateClient();
  client->PostMsg("six", nullptr, 0);
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const auto transport = static_cast<Transport>(argc > 2 ? std::atoi(argv[2]) : 0);
  if (mode == "settings") return ShowSettings(false);
  if (mode == "settings-ignoring") return ShowSettings(true);
  if (mode == "statics") return outside_main ? 0 : Fail("the static did not run");
  if (mode == "atexit") return UseAtExit();
  if (mode == "leave") return Leave(transport, false);
  if (mode == "leave-calling") return Leave(transport, true);
  if (mode == "serve" && argc > 3) return Serve(transport, argv[3]);
  if (mode == "print") return PrintAndWait();
  return Fail("what to show?");
}
