// Jobs that outlive their server: each has a name and takes a time, and they are done one after the other.
#include <mivo/rpc.h>
#include <mivo/rpc/signals.h>

#include <algorithm>
#include <fstream>
#include <iostream>

struct Job {
  std::string name, state;  // "waiting", "done" or "cancelled"
  int milliseconds;         // that it still takes
};
MIVO_FIELDS(Job, name, state, milliseconds)

class Queue {
 public:
  // Each line of the file is a job's latest state; the last line may be cut off.
  explicit Queue(const std::string& path) {
    std::ifstream before(path);
    for (Job job; before >> job.state >> job.milliseconds >> job.name && before.get() == '\n';)
      Put(job);
    file_.exceptions(std::ios::failbit | std::ios::badbit);
    file_.open(path + ".new");
    for (const Job& job : jobs_)
      Write(job);
    if (std::rename((path + ".new").c_str(), path.c_str()) != 0) throw std::runtime_error(path + ": cannot be written");
  }

  // False if it is there already.
  bool Submit(const std::string& name, int milliseconds, const mivo::Caller& caller) {
    if (name.empty() || name.find_first_of(" \n") != std::string::npos) throw mivo::Error("job.name", "not a word");
    const std::lock_guard<std::mutex> lock(mutex_);
    submitters_.insert_or_assign(name, caller);
    const bool is_new = Find(name) == jobs_.end();
    Change(is_new ? Job{name, "waiting", milliseconds} : *Find(name));
    return is_new;
  }
  Job Status(const std::string& name, bool cancel) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto job = Find(name);
    if (job == jobs_.end()) throw mivo::Error("job.unknown", "there is no job " + name);
    if (cancel && job->state == "waiting") Change({name, "cancelled", 0});
    return *job;
  }
  std::vector<Job> List() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return jobs_;
  }
  void Work(int milliseconds) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto job = std::find_if(jobs_.begin(), jobs_.end(), [](const Job& each) { return each.state == "waiting"; });
    if (job != jobs_.end() && (job->milliseconds -= milliseconds) <= 0) Change({job->name, "done", 0});
  }

 private:
  std::vector<Job>::iterator Find(const std::string& name) {
    return std::find_if(jobs_.begin(), jobs_.end(), [&](const Job& job) { return job.name == name; });
  }
  void Put(const Job& job) {
    if (Find(job.name) == jobs_.end()) jobs_.push_back(job);
    *Find(job.name) = job;
  }
  void Write(const Job& job) { file_ << job.state << ' ' << job.milliseconds << ' ' << job.name << std::endl; }
  void Change(const Job& job) {
    Write(job);  // before anybody is told
    Put(job);
    const auto submitter = submitters_.find(job.name);
    if (job.state != "waiting" && submitter != submitters_.end()) submitter->second.post("ended", job);
  }

  std::ofstream file_;
  std::mutex mutex_;
  std::vector<Job> jobs_;
  std::map<std::string, mivo::Caller> submitters_;
};

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::cout << "usage: job_queue_server <address> <file>\n\nServes until SIGINT or SIGTERM.\n";
    return argc == 2 && std::string(argv[1]) == "--help" ? 0 : 2;
  }
  mivo::Signals stop;
  Queue queue(argv[2]);
  mivo::PerClient<std::atomic<int>> counts;
  mivo::Server server;
  server.on("submit", [&](mivo::Caller& caller, const std::string& name, int milliseconds) {
    const auto count = counts.of(caller);
    return queue.Submit(name, milliseconds, caller) ? ++*count : count->load();
  });
  server.on("status", [&](const std::string& name) { return queue.Status(name, false); });
  server.on("cancel", [&](const std::string& name) { return queue.Status(name, true); });
  server.on("list", [&] { return queue.List(); });
  server.listen(argv[1]);
  while (stop.wait_for(std::chrono::milliseconds(10)) == 0)
    queue.Work(10);
  server.drain(std::chrono::seconds(5));
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
