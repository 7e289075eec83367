// What a user's file looks like that offers and calls methods: it is to compile without a warning. Exit status 0 when
// everything came back as it should.
#include <mivo/rpc.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace jobs {

enum class Priority : std::uint8_t { kLow, kHigh };

struct Job {
  std::string name;
  std::vector<std::string> arguments;
  std::int64_t size = 0;
  Priority priority = Priority::kLow;
  std::optional<double> limit;
};
MIVO_FIELDS(Job, name, arguments, size, priority, limit)

struct Status {
  std::map<std::string, int> counts;
  std::vector<Job> waiting;
  std::pair<std::int64_t, bool> last;
};
MIVO_FIELDS(Status, counts, waiting, last)

}  // namespace jobs

namespace {

using jobs::Job;
using jobs::Priority;
using jobs::Status;
using namespace std::chrono_literals;

struct Session {
  std::vector<Job> submitted;
};

int Add(int a, int b) {
  return a + b;
}

struct Multiply {
  double operator()(double a, double b) const { return a * b; }
};

}  // namespace

// typical <address>
int main(int argument_count, char** arguments) {
  const std::string address = argument_count > 1 ? arguments[1] : "unix:typical";
  Status status;
  int shown = 0;
  mivo::Serial serial;
  mivo::Loop loop;

  mivo::PerClient<Session> sessions;
  mivo::Server server;
  server.on("add", Add, {"Adds two numbers.", {"a", "b"}});
  server.on("multiply", Multiply());
  server.on("touch", [] {});
  server.on("submit", [&sessions](mivo::Caller& caller, Job job) {
    if (job.size < 0) throw mivo::Error("job.size", "less than nothing");
    sessions.of(caller)->submitted.push_back(std::move(job));
    caller.post("accepted", "a job");
  });
  server.on("append", serial([&status](const Job& job) { status.waiting.push_back(job); }));
  server.on("status", serial([&status] { return status; }));
  server.on("show", loop([&shown](int number) { shown = number; }));
  server.on("convert", mivo::limited(4, [](std::vector<std::byte> picture) { return picture.size(); }));
  server.on_connect([](mivo::Caller& caller) { std::printf("client %d has come\n", caller.id()); });
  server.listen(address);

  std::promise<std::uint64_t> converted;
  mivo::Client client(address, mivo::kReconnect);
  client.on("accepted", [](const std::string& text) { std::printf("%s is accepted\n", text.c_str()); });
  client.on_ready([&client] { client.post("touch"); });
  if (!client.wait_until_ready(60s)) return 1;

  const int sum = client.call<int>("add", 2, 40);
  const auto product = client.within(60s).idempotent().call<double>("multiply", 1.5, sum);
  const Job job{"print", {"a.txt"}, 7, Priority::kHigh, std::nullopt};
  client.call("submit", job);
  client.call("append", job);
  std::future<Status> later = client.async<Status>("status");
  client.then<std::uint64_t>(
      [&converted](const mivo::Result<std::uint64_t>& size) { converted.set_value(size ? *size : 0); }, "convert",
      std::vector<std::byte>(3));
  std::future<void> showing = client.async("show", 5);
  while (loop.drain() == 0)
    std::this_thread::yield();
  showing.get();
  const mivo::Result<int> missing = client.try_call<int>("missing");
  server.broadcast("accepted", "everything");

  const Status seen = later.get();
  const std::uint64_t size = converted.get_future().get();
  std::printf("%d %f %zu %d %llu\n", sum, product, seen.waiting.size(), shown, static_cast<unsigned long long>(size));
  const bool is_right = sum == 42 && product > 62.9 && product < 63.1 && seen.waiting.size() == 1 &&
                        seen.waiting[0].arguments == job.arguments && shown == 5 && size == 3 && !missing &&
                        missing.error().code() == mivo::NoSuchMethod::kCode;
  return is_right ? 0 : 1;
}
