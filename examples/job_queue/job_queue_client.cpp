// Asks about jobs, and submits some: their end it waits for, also while the server goes and comes back.
#include <mivo/rpc.h>

#include <iostream>
#include <set>

struct Job {
  std::string name, state;
};
MIVO_FIELDS(Job, name, state)

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const std::string verb = argc > 2 ? words[1] : "";
  if (verb == "submit" ? argc < 5 : argc != (verb == "list" ? 3 : 4)) {
    std::cout << "usage: job_queue_client <address> list | status <name> | cancel <name> | submit <ms> <name>...\n";
    return argc == 2 && words[0] == "--help" ? 0 : 2;
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::string> ended;
  mivo::Client client(words[0], mivo::kReconnect);
  client.on("ended", [&](const Job& job) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (ended.insert(job.name).second) std::cout << job.name << ": " << job.state << std::endl;
    changed.notify_all();
  });
  if (verb == "submit") {
    const auto submit = [&, milliseconds = std::stoi(words[2]), calls = client.idempotent()] {
      int count = 0;
      for (std::size_t i = 3; i < words.size(); ++i)
        count = calls.call<int>("submit", words[i], milliseconds);
      return count;
    };
    std::cout << submit() << " submitted" << std::endl;
    client.on_ready(submit);  // each server is to know whom to tell
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return ended.size() == std::set(words.begin() + 3, words.end()).size(); });
  } else {
    const auto jobs =
        verb == "list" ? client.call<std::vector<Job>>(verb) : std::vector{client.call<Job>(verb, words[2])};
    for (const Job& job : jobs)
      std::cout << job.name << ": " << job.state << "\n";
  }
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
