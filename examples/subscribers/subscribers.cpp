// Clients subscribe, the server posts readings of this machine's load to all of them, and one leaves in the middle.
#include <mivo/mivo.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace {

constexpr auto kPatience = std::chrono::seconds(20);

// ---- the server's side ----

// Handlers run on the pool, so "subscribe" may run after the notice that its client has gone: an id that was added then
// would stay for ever, and belong to somebody else one day. The notices keep their order, as both run on the loop
// thread. So they say who is here, and only who is here can subscribe. (An id comes round after 2^28 connections. No
// handler waits that long.)
class Subscribers {
 public:
  explicit Subscribers(IServer* server) : server_(server) {}

  void Come(int client_id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    here_.insert(client_id);
  }

  void Add(int client_id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (here_.count(client_id) != 0) ids_.insert(client_id);
  }

  void Go(int client_id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    here_.erase(client_id);
    ids_.erase(client_id);
    changed_.notify_all();
  }

  bool AwaitCount(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return ids_.size() == count; });
  }

  // Returns to whom.
  std::set<int> Publish(int number) {
    std::string load;
    std::getline(std::ifstream("/proc/loadavg") >> std::ws, load);
    MIVOParams reading;
    reading.AddInt(number);
    reading.AddString(load.c_str());
    std::set<int> ids;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ids = ids_;
    }
    // A post to a client that has just gone is dropped.
    for (const int id : ids)
      server_->PostMsg(id, "reading", &reading, 0);
    return ids;
  }

 private:
  IServer* const server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<int> here_;  // who is connected
  std::set<int> ids_;   // who of them has subscribed
};

class Subscribe : public IServerMethod {
 public:
  explicit Subscribe(Subscribers& subscribers) : subscribers_(subscribers) {}
  void OnCall(int client_id, MIVOParams*, MIVOParams*) override { subscribers_.Add(client_id); }

 private:
  Subscribers& subscribers_;
};

// The notices of a connection's beginning and end, also of those that never subscribe. They run on the loop thread: be
// quick.
class Connected : public IServerMethod {
 public:
  explicit Connected(Subscribers& subscribers) : subscribers_(subscribers) {}
  void OnCall(int client_id, MIVOParams*, MIVOParams*) override { subscribers_.Come(client_id); }

 private:
  Subscribers& subscribers_;
};

class Closed : public IServerMethod {
 public:
  explicit Closed(Subscribers& subscribers) : subscribers_(subscribers) {}
  void OnCall(int client_id, MIVOParams*, MIVOParams*) override { subscribers_.Go(client_id); }

 private:
  Subscribers& subscribers_;
};

// ---- the clients' side ----

class Readings : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams*) override {
    const MIVOValue* const number = request->GetValue(0);
    const MIVOValue* const load = request->GetValue(1);
    if (number == nullptr || !number->IsInt() || load == nullptr || !load->IsString()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    numbers_.insert(number->GetInt());
    if (std::stod(load->GetString()) < 0) plausible_ = false;
    changed_.notify_all();
  }

  // Whether the readings 1 to `count` arrive, and no others until then.
  bool Await(int count) {
    std::set<int> wanted;
    for (int i = 1; i <= count; ++i)
      wanted.insert(i);
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return numbers_ == wanted; }) && plausible_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<int> numbers_;  // handlers may overlap: no order is promised
  bool plausible_ = true;
};

struct Subscriber {
  Readings readings;
  IClient* client = CreateClient();

  bool Join(const std::string& name) {
    client->log(nullptr, 0);
    client->SetCustomReleaseEvent();  // `readings` is ours
    client->method("reading", &readings);
    if (!client->InitMIVOClient(name.c_str(), true)) return false;
    MIVOParams* const reply = client->SendMsg("subscribe", nullptr, 0, 5000);
    if (reply->GetMap("errorCode") == nullptr || reply->MapSize() != 1) return true;
    delete reply;
    return false;
  }
  void Leave() {
    DestroyClient(client);
    client = nullptr;
  }
};

bool Expect(bool holds, const std::string& what) {
  std::cout << (holds ? "ok: " : "WRONG: ") << what << "\n";
  return holds;
}

bool Play(Subscribers& subscribers, const std::string& name) {
  Subscriber a;
  Subscriber b;
  Subscriber c;
  bool fine = true;
  for (Subscriber* const subscriber : {&a, &b, &c})
    fine &= Expect(subscriber->Join(name), "one more subscriber");
  std::set<int> all;
  for (const int number : {1, 2}) {
    all = subscribers.Publish(number);
    fine &= Expect(all.size() == 3, "a reading for three");
  }
  fine &= Expect(b.readings.Await(2), "b has seen two readings");
  b.Leave();
  fine &= Expect(subscribers.AwaitCount(2), "b has left, the server knows");
  for (const int id : all)
    subscribers.Add(id);  // what a "subscribe" of b's would do that runs only now
  for (const int number : {3, 4, 5})
    fine &= Expect(subscribers.Publish(number).size() == 2, "a reading for two");
  fine &= Expect(a.readings.Await(5) && c.readings.Await(5), "a and c have seen five");
  a.Leave();
  c.Leave();
  return fine & Expect(subscribers.AwaitCount(0), "nobody is left");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: subscribers\n\nA server posts readings to clients that have subscribed; one leaves early.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  const std::string name = std::to_string(::getpid());
  IServer* const server = CreateServer();
  Subscribers subscribers(server);
  server->log(nullptr, 0);
  server->method("subscribe", new Subscribe(subscribers));
  server->method("s_c_connect", new Connected(subscribers));
  server->method("s_c_closed", new Closed(subscribers));
  bool fine = server->InitMIVOServer(name.c_str());
  if (fine) {
    fine = Play(subscribers, name);
  } else {
    std::cout << "cannot serve or connect\n";
  }
  DestroyServer(server);
  return fine ? 0 : 1;
}
