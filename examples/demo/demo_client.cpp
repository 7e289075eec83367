// The demo's client: calls the demo's server, shows what went out and what came back, and compares. run.sh starts it,
// once for each scene.
#include <mivo/mivo.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int kTimeoutMs = 10000;

// ---- what holds and what does not ----

int wrong = 0;

void Expect(bool holds, const std::string& what) {
  std::cout << (holds ? "   ok: " : "   WRONG: ") << what << std::endl;
  if (!holds) ++wrong;
}

// ---- a client ----

struct Destroy {
  void operator()(IClient* client) const { DestroyClient(client); }
};
using Client = std::unique_ptr<IClient, Destroy>;

// A handler whose body is a function. On a client, the sets are null for "s_c_closed".
class Handler : public IServerMethod {
 public:
  using Body = std::function<void(MIVOParams* request, MIVOParams* reply)>;
  explicit Handler(Body body) : body_(std::move(body)) {}
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override { body_(request, reply); }

 private:
  const Body body_;
};

Client NewClient() {
  Client client(CreateClient());
  client->log(nullptr, 0);
  return client;
}

// The server may still be on its way: tries again until it is there.
bool Connect(IClient& client, const std::string& socket_name) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!client.InitMIVOClient(socket_name.c_str(), true)) {
    if (std::chrono::steady_clock::now() > deadline) {
      std::cerr << "demo_client: nobody listens on /tmp/echo.sock." << socket_name << std::endl;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Nothing for a reply, which stays the client's; otherwise the code of an error set, which is ours and is deleted.
std::optional<int> TakeError(MIVOParams* reply) {
  const MIVOValue* const code = reply->GetMap("errorCode");
  if (code == nullptr || reply->MapSize() != 1) return std::nullopt;
  const int value = code->GetInt();
  delete reply;
  return value;
}

std::string TextOf(std::optional<int> error) {
  return error ? "error " + std::to_string(*error) : "a reply";
}

// The reply's first value, printed as text; "error <code>" if there was no reply.
std::string Ask(IClient& client, const char* name, MIVOParams* request = nullptr) {
  MIVOParams* const reply = client.SendMsg(name, request, 0, kTimeoutMs);
  if (const std::optional<int> error = TakeError(reply)) return TextOf(error);
  const MIVOValue* const first = reply->GetValue(0);
  std::ostringstream text;
  text << std::setprecision(10);
  if (first == nullptr) return "";
  if (first->IsInt()) text << first->GetInt();
  if (first->IsDouble()) text << first->GetDouble();
  if (first->IsString()) text << first->GetString();
  return text.str();
}

std::string Ask(IClient& client, const char* name, int argument) {
  MIVOParams request;
  request.AddInt(argument);
  return Ask(client, name, &request);
}

// ---- scene "tour": what calls can do, over one transport ----

// The set's own records, without those of the envelope that every reply carries behind them.
bool BeginsWith(const MIVOParams& set, const MIVOParams& beginning) {
  const std::string whole(set.GetParamasPtr(), static_cast<std::size_t>(set.GetParamasSize()));
  return whole.compare(0, static_cast<std::size_t>(beginning.GetParamasSize()), beginning.GetParamasPtr(),
                       static_cast<std::size_t>(beginning.GetParamasSize())) == 0;
}

void EchoEveryType(IClient& client) {
  std::cout << "\n-- echo: a value of every type goes out and comes back" << std::endl;
  MIVOParams request;
  request.AddInt(-42);
  request.AddBool(true);
  request.AddDouble(2.5);
  request.AddString("gr\xc3\xbc\xc3\x9f dich");
  request.AddStream("\x00\x01\xff\x00", 4);
  ListParams* const list = request.CreateListParams();
  list->AddInt(1);
  list->AddDouble(0.25);
  list->AddString("three", 5);
  request.AddList(list);  // and deletes it
  request.AddKeyValueString("name", "mivo");

  request.ToParams();  // what was added can be read only after this
  std::cout << "sent:";
  request.print();

  MIVOParams* const reply = client.SendMsg("echo", &request, 0, kTimeoutMs);
  std::cout << "came back:";
  reply->print();
  if (const std::optional<int> error = TakeError(reply)) {
    Expect(false, "echo is answered, not with " + TextOf(error));
    return;
  }
  Expect(BeginsWith(*reply, request), "the echo is what was sent, byte for byte; behind it stands the envelope");
}

void AskForTheMachine(IClient& client) {
  std::cout << "\n-- sum, machine, list: methods of the server" << std::endl;
  MIVOParams numbers;
  ListParams* const list = numbers.CreateListParams();
  for (int i = 1; i <= 1000; ++i)
    list->AddInt(i);
  list->AddDouble(0.5);
  numbers.AddList(list);
  const std::string sum = Ask(client, "sum", &numbers);
  Expect(sum == "500500.5", "1 + 2 + ... + 1000 + 0.5 = " + sum);

  MIVOParams* const machine = client.SendMsg("machine", nullptr, 0, kTimeoutMs);
  if (TakeError(machine)) {
    Expect(false, "machine is answered");
    return;
  }
  for (const char* const key : {"kernel", "load", "memory"}) {
    const MIVOValue* const value = machine->GetMap(key);
    const std::string text = value != nullptr && value->IsString() ? value->GetString() : "";
    Expect(!text.empty(), std::string("the server read its ") + key + ": " + text);
  }
  const MIVOValue* const pid = machine->GetMap("pid");
  const int server_pid = pid != nullptr && pid->IsInt() ? pid->GetInt() : 0;
  Expect(server_pid > 0 && server_pid != ::getpid(),
         "it is another process: " + std::to_string(server_pid) + ", we are " + std::to_string(::getpid()));

  MIVOParams path;
  path.AddString("/");
  MIVOParams* const listing = client.SendMsg("list", &path, 0, kTimeoutMs);
  if (TakeError(listing)) {
    Expect(false, "list is answered");
    return;
  }
  std::set<std::string> theirs;
  MIVOValue* const names = listing->GetValue(0);
  if (names != nullptr && names->IsList()) {
    for (const MIVOValue* const name : *names->GetList())
      theirs.insert(name->GetString());
  }
  std::set<std::string> ours;
  for (const auto& entry : std::filesystem::directory_iterator("/"))
    ours.insert(entry.path().filename().string());
  Expect(theirs == ours, "the server sees the " + std::to_string(theirs.size()) + " entries of / that we see");
}

void LoseAReply(IClient& client) {
  std::cout << "\n-- slow, called with 300 ms of patience; and a method that nobody offers" << std::endl;
  const auto start = std::chrono::steady_clock::now();
  const std::optional<int> error = TakeError(client.SendMsg("slow", nullptr, 0, 300));
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  Expect(error == -1001, "no reply in time: " + TextOf(error) + " after " + std::to_string(waited.count()) +
                             " ms (time-outs are looked at every 100 ms)");
  // Now slow comes to its end, and its reply comes too late for anybody.
  Ask(client, "go");
  const std::string sum = Ask(client, "no_such_method");
  Expect(sum == "no event: no_such_method", "the next call gets its own answer: \"" + sum + "\"");
}

void BeAskedBack(IClient& client) {
  std::cout << "\n-- ask_back: while we wait for its reply, the server calls us, and we call the server" << std::endl;
  const std::string answer = Ask(client, "ask_back");
  Expect(answer == "client says: demo_client, and 2 + 3 = 5", "\"" + answer + "\"");
}

// Called by the server, on a thread of the work pool. SendMsgFast, for SendMsg would wait here for the call that is
// under way, and that call waits for us.
void AnswerQuestion(IClient& client, MIVOParams* reply) {
  MIVOParams numbers;
  ListParams* const list = numbers.CreateListParams();
  list->AddInt(2);
  list->AddInt(3);
  numbers.AddList(list);
  MIVOParams* const sum = client.SendMsgFast("sum", &numbers, 0, kTimeoutMs);
  if (TakeError(sum)) return;
  const MIVOValue* const value = sum->GetValue(0);
  if (value == nullptr || !value->IsDouble()) return;
  reply->AddString(("demo_client, and 2 + 3 = " + std::to_string(static_cast<int>(value->GetDouble()))).c_str());
}

bool Tour(const std::string& title, const std::function<bool(IClient&)>& connect) {
  std::cout << "\n==== " << title << std::endl;
  const Client client = NewClient();
  client->method("question",
                 new Handler([&client](MIVOParams*, MIVOParams* reply) { AnswerQuestion(*client, reply); }));
  if (!connect(*client)) {
    Expect(false, "connected");
    return false;
  }
  Expect(client->isok(), "connected, and the versions agree");
  EchoEveryType(*client);
  AskForTheMachine(*client);
  LoseAReply(*client);
  BeAskedBack(*client);
  return true;
}

void TourOfAllTransports(const std::string& socket_name) {
  std::string tcp4_port;
  std::string tcp6_port;
  const bool connected = Tour("local socket /tmp/echo.sock." + socket_name, [&](IClient& client) {
    if (!Connect(client, socket_name)) return false;
    MIVOParams* const ports = client.SendMsg("tcp_ports", nullptr, 0, kTimeoutMs);
    if (TakeError(ports) || ports->ParamsSize() != 2) return false;
    tcp4_port = std::to_string(ports->GetValue(0)->GetInt());
    tcp6_port = std::to_string(ports->GetValue(1)->GetInt());
    return true;
  });
  if (!connected) return;

  Tour("TCP v4, 127.0.0.1:" + tcp4_port,
       [&](IClient& client) { return client.InitMIVOClientTcp4("127.0.0.1", tcp4_port.c_str(), true); });
  if (tcp6_port == "0") {
    std::cout << "\n==== TCP v6: left out, this machine has no address ::1" << std::endl;
    return;
  }
  Tour("TCP v6, [::1]:" + tcp6_port,
       [&](IClient& client) { return client.InitMIVOClientTcp6("::1", tcp6_port.c_str(), true); });
}

// ---- scenes "subscribe" and "publish" ----

// Subscribes, stays for `count` readings, and leaves.
void Subscribe(const std::string& socket_name, const std::string& who, int count) {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<int> seen;

  const Client client = NewClient();
  // Readings arrive in order, but two handlers may run at the same time: what is counted is a set.
  client->method("reading", new Handler([&](MIVOParams* request, MIVOParams*) {
                   const MIVOValue* const number = request->GetValue(0);
                   const MIVOValue* const load = request->GetValue(1);
                   if (number == nullptr || !number->IsInt() || load == nullptr || !load->IsString()) return;
                   const std::lock_guard<std::mutex> lock(mutex);
                   std::cout << "   " + who + " got reading " + std::to_string(number->GetInt()) + ": load " +
                                    load->GetString() + "\n"
                             << std::flush;
                   seen.insert(number->GetInt());
                   changed.notify_all();
                 }));
  if (!Connect(*client, socket_name)) {
    ++wrong;
    return;
  }
  Ask(*client, "subscribe");
  std::set<int> wanted;
  for (int i = 1; i <= count; ++i)
    wanted.insert(i);
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait_for(lock, std::chrono::seconds(20), [&] { return seen.size() >= wanted.size(); });
  // Every post is answered, though nobody waits for the answer. This round trip gives ours time to leave.
  lock.unlock();
  Ask(*client, "echo");
  lock.lock();
  Expect(seen == wanted, who + " has seen readings 1 to " + std::to_string(count) + " and leaves");
}

// Has the server publish: to three, and when one of them has left, to the two that stay.
void Publish(const std::string& socket_name) {
  const Client client = NewClient();
  if (!Connect(*client, socket_name)) {
    ++wrong;
    return;
  }
  Expect(Ask(*client, "await_subscribers", 3) == "3", "three processes have subscribed");
  for (int i = 0; i < 2; ++i)
    Expect(Ask(*client, "publish") == "3", "a reading goes to three");
  Expect(Ask(*client, "await_subscribers", 2) == "2", "one has left");
  for (int i = 0; i < 4; ++i)
    Expect(Ask(*client, "publish") == "2", "a reading goes to two");
  Expect(Ask(*client, "await_subscribers", 0) == "0", "the others have left, too");
}

// ---- scene "file" ----

std::string Sha256Of(const std::string& path) {
  char digest[65] = "";
  FILE* const pipe = ::popen(("sha256sum '" + path + "'").c_str(), "r");
  if (pipe == nullptr) return "";
  const bool read = std::fscanf(pipe, "%64s", digest) == 1;
  ::pclose(pipe);
  return read ? digest : "";
}

// A bar that fills on a terminal, a line for each quarter elsewhere.
class Progress {
 public:
  Progress(std::string what, long total) : what_(std::move(what)), total_(total) {}

  void Show(long done) {
    const long percent = done * 100 / total_;
    const auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::ostringstream line;
    line << "   " << what_ << " ";
    if (is_terminal_)
      line << "[" << std::string(static_cast<std::size_t>(percent) * 40 / 100, '#')
           << std::string(40 - static_cast<std::size_t>(percent) * 40 / 100, ' ') << "] ";
    line << std::setw(3) << percent << " %  " << std::fixed << std::setprecision(0)
         << static_cast<double>(done) / (1 << 20) / std::max(elapsed, 1e-6) << " MiB/s";
    if (is_terminal_) {
      std::cout << "\r" << line.str() << (done == total_ ? "\n" : "") << std::flush;
    } else if (percent / 25 > shown_quarter_) {
      shown_quarter_ = percent / 25;
      std::cout << line.str() << std::endl;
    }
  }

 private:
  const std::string what_;
  const long total_;
  const bool is_terminal_ = ::isatty(STDOUT_FILENO) == 1;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  long shown_quarter_ = 0;
};

// A file of any size goes in pieces of one SendMsgEx each: neither side ever holds the whole, and there is something to
// tell after every piece. Each piece in turn travels in slices, which the library takes care of.
constexpr long kPieceSize = 4L << 20;

bool SendFile(IClient& client, const std::string& path, long size) {
  std::ifstream file(path, std::ios::binary);
  std::vector<char> bytes(static_cast<std::size_t>(kPieceSize));
  Progress progress("sent   ", size);
  for (long offset = 0; offset < size; offset += kPieceSize) {
    const long length = std::min(kPieceSize, size - offset);
    if (!file.read(bytes.data(), length)) return false;
    MIVOParams request;
    request.AddInt(static_cast<int>(offset));
    request.AddStream(bytes.data(), length);
    MIVOParams* const reply = client.SendMsgEx("put", &request, 0, 30000);
    if (TakeError(reply)) return false;
    const MIVOValue* const stored = reply->GetValue(0);
    if (stored == nullptr || !stored->IsInt() || stored->GetInt() != length) return false;
    progress.Show(offset + length);
  }
  return true;
}

bool FetchFile(IClient& client, const std::string& path, long size) {
  std::ofstream file(path, std::ios::binary);
  Progress progress("fetched", size);
  for (long offset = 0; offset < size; offset += kPieceSize) {
    const long length = std::min(kPieceSize, size - offset);
    MIVOParams request;
    request.AddInt(static_cast<int>(offset));
    request.AddInt(static_cast<int>(length));
    MIVOParams* const reply = client.SendMsgEx("get", &request, 0, 30000);
    if (TakeError(reply)) return false;
    const MIVOValue* const piece = reply->GetValue(0);
    if (piece == nullptr || !piece->IsStream()) return false;
    long piece_size = 0;
    const char* const bytes = piece->GetStream(piece_size);
    if (piece_size != length || !file.write(bytes, length)) return false;
    progress.Show(offset + length);
  }
  file.close();
  return !file.fail();
}

void SendAndFetchFile(const std::string& socket_name, const std::string& path, const std::string& fetched_path) {
  std::error_code error;
  const auto size = static_cast<long>(std::filesystem::file_size(path, error));
  const Client client = NewClient();
  if (error || !Connect(*client, socket_name)) {
    Expect(false, "the file is there, and the server");
    return;
  }
  const std::string digest = Sha256Of(path);
  Expect(digest.size() == 64, "the file has " + std::to_string(size) + " bytes, SHA-256 " + digest);
  Expect(SendFile(*client, path, size), "the server has taken it");
  Expect(Ask(*client, "sha256") == digest, "the server finds the same SHA-256 in what it has stored");
  Expect(FetchFile(*client, fetched_path, size), "the server has given it back");
  Expect(Sha256Of(fetched_path) == digest, "we find the same SHA-256 in what came back");
}

// ---- scene "goodbye" ----

// The server ends while a call is under way.
void SeeTheServerGo(const std::string& socket_name) {
  std::promise<void> started;
  std::promise<void> closed;
  const Client client = NewClient();
  client->method("slow_started", new Handler([&](MIVOParams*, MIVOParams*) { started.set_value(); }));
  client->method("s_c_closed", new Handler([&](MIVOParams*, MIVOParams*) { closed.set_value(); }));
  if (!Connect(*client, socket_name)) {
    ++wrong;
    return;
  }
  // It would wait without limit.
  auto waiting = std::async(std::launch::async, [&] { return TakeError(client->SendMsgFast("slow", nullptr, 0, 0)); });
  const auto patience = std::chrono::seconds(10);
  Expect(started.get_future().wait_for(patience) == std::future_status::ready, "a call without time-out is under way");
  client->PostMsg("stop", nullptr, 0);
  Expect(closed.get_future().wait_for(patience) == std::future_status::ready,
         "asked to stop, the server is gone: notice");
  const std::optional<int> error = waiting.get();
  Expect(error == -1001, "the call under way has ended: " + TextOf(error) + ", nobody knows how far it got");
  Expect(!client->isok(), "the client knows that it is not connected");
  std::cout << "   the library says of the next call: " << std::flush;
  const std::optional<int> next_error = TakeError(client->SendMsg("echo", nullptr, 0, kTimeoutMs));
  Expect(next_error == -1000, "the next call was not sent: " + TextOf(next_error));
  Expect(!client->InitMIVOClient(socket_name.c_str(), true), "and nobody is there to connect to");
}

constexpr char kUsage[] =
    "usage: demo_client tour <socket name>                      calls over local socket, TCP v4 and TCP v6\n"
    "       demo_client subscribe <socket name> <who> <count>   waits for that many readings\n"
    "       demo_client publish <socket name>                   has the server post six readings to three, later two\n"
    "       demo_client file <socket name> <file> <copy>        sends a file and fetches it back\n"
    "       demo_client goodbye <socket name>                   stops the server\n\n"
    "Exit status 0 if everything was as it should be, 1 if not. demo_server listens; run.sh plays it all.\n";

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const std::string scene = arguments.empty() ? "" : arguments[0];
  if (scene == "--help") {
    std::cout << kUsage;
    return 0;
  }
  if (scene == "tour" && arguments.size() == 2) {
    TourOfAllTransports(arguments[1]);
  } else if (scene == "subscribe" && arguments.size() == 4) {
    Subscribe(arguments[1], arguments[2], std::stoi(arguments[3]));
  } else if (scene == "publish" && arguments.size() == 2) {
    Publish(arguments[1]);
  } else if (scene == "file" && arguments.size() == 4) {
    SendAndFetchFile(arguments[1], arguments[2], arguments[3]);
  } else if (scene == "goodbye" && arguments.size() == 2) {
    SeeTheServerGo(arguments[1]);
  } else {
    std::cerr << kUsage;
    return 2;
  }
  if (wrong != 0) std::cout << "demo_client " << scene << ": " << wrong << " wrong" << std::endl;
  return wrong == 0 ? 0 : 1;
}
