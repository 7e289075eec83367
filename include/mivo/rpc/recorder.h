// Counts, errors and durations of calls and handlers, by method.
//
//     mivo::Recorder recorder;
//     server.observe(recorder.observer());
//     ...
//     respond(recorder.prometheus());
#ifndef MIVO_RPC_RECORDER_H_
#define MIVO_RPC_RECORDER_H_

#include <mivo/rpc/observation.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace mivo {

// Any thread. It has to outlive the objects that it observes; several may share it.
class Recorder {
 public:
  // Durations up to 1 us, 2 us, 4 us, ... some 16 s, and all beyond.
  static constexpr std::size_t kBuckets = 26;

  struct Entry {
    Observation::Direction direction;
    std::string method;
    std::uint64_t count = 0;
    std::uint64_t errors = 0;
    std::uint64_t request_bytes = 0;
    std::uint64_t reply_bytes = 0;
    std::chrono::nanoseconds total{0};
    std::array<std::uint64_t, kBuckets> by_duration{};  // each for itself
  };

  Observer observer() {
    return [this](const Observation& observation) { Add(observation); };
  }

  std::vector<Entry> entries() const {
    std::vector<Entry> all;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [key, entry] : entries_)
      all.push_back(entry);
    return all;
  }

  // All of it in the text format of Prometheus, as metrics whose names begin with "mivo_".
  std::string prometheus() const {
    const std::vector<Entry> all = entries();
    std::string text;
    Head(text, "mivo_errors_total", "counter", "Calls and handlers that have ended with an error.");
    for (const Entry& entry : all)
      Line(text, "mivo_errors_total", Labels(entry), std::to_string(entry.errors));
    Head(text, "mivo_request_bytes_total", "counter", "Arguments, as they travel.");
    for (const Entry& entry : all)
      Line(text, "mivo_request_bytes_total", Labels(entry), std::to_string(entry.request_bytes));
    Head(text, "mivo_reply_bytes_total", "counter", "Results and errors, as they travel.");
    for (const Entry& entry : all)
      Line(text, "mivo_reply_bytes_total", Labels(entry), std::to_string(entry.reply_bytes));
    Head(text, "mivo_duration_seconds", "histogram", "From the request to its answer.");
    for (const Entry& entry : all)
      AddHistogram(text, entry);
    return text;
  }

 private:
  void Add(const Observation& observation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto [place, is_new] =
        entries_.try_emplace({observation.direction, std::string(observation.method)}, Entry());
    Entry& entry = place->second;
    if (is_new) {
      entry.direction = observation.direction;
      entry.method = observation.method;
    }
    ++entry.count;
    if (!observation.error.empty()) ++entry.errors;
    entry.request_bytes += observation.request_bytes;
    entry.reply_bytes += observation.reply_bytes;
    entry.total += observation.duration;
    ++entry.by_duration[BucketOf(observation.duration)];
  }

  static std::chrono::nanoseconds EndOf(std::size_t bucket) { return std::chrono::nanoseconds(1000LL << bucket); }
  static std::size_t BucketOf(std::chrono::nanoseconds duration) {
    std::size_t bucket = 0;
    while (bucket + 1 < kBuckets && duration > EndOf(bucket))
      ++bucket;
    return bucket;
  }

  static const char* NameOf(Observation::Direction direction) {
    switch (direction) {
      case Observation::Direction::kCall:
        return "call";
      case Observation::Direction::kPost:
        return "post";
      case Observation::Direction::kHandler:
        break;
    }
    return "handler";
  }

  static std::string Labels(const Entry& entry) {
    std::string method;
    for (const char byte : entry.method) {
      if (byte == '\n') {
        method += "\\n";
        continue;
      }
      if (byte == '"' || byte == '\\') method += '\\';
      method += byte;
    }
    return std::string("direction=\"") + NameOf(entry.direction) + "\",method=\"" + method + "\"";
  }
  static std::string Seconds(std::chrono::nanoseconds duration) {
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", std::chrono::duration<double>(duration).count());
    return text;
  }
  static void Head(std::string& text, const std::string& name, const char* type, const char* help) {
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  static void Line(std::string& text, const std::string& name, const std::string& labels, const std::string& value) {
    text += name + "{" + labels + "} " + value + "\n";
  }
  static void AddHistogram(std::string& text, const Entry& entry) {
    std::uint64_t so_far = 0;
    for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
      so_far += entry.by_duration[bucket];
      const std::string end = bucket + 1 < kBuckets ? Seconds(EndOf(bucket)) : "+Inf";
      Line(text, "mivo_duration_seconds_bucket", Labels(entry) + ",le=\"" + end + "\"", std::to_string(so_far));
    }
    Line(text, "mivo_duration_seconds_sum", Labels(entry), Seconds(entry.total));
    Line(text, "mivo_duration_seconds_count", Labels(entry), std::to_string(entry.count));
  }

  mutable std::mutex mutex_;
  std::map<std::pair<Observation::Direction, std::string>, Entry> entries_;
};

}  // namespace mivo

#endif  // MIVO_RPC_RECORDER_H_
