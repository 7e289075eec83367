#ifndef MIVO_TESTS_UNIT_DECODER_TRANSCRIPT_H_
#define MIVO_TESTS_UNIT_DECODER_TRANSCRIPT_H_

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "values/decoder.h"

namespace mivo_test {

// Bytes that end where readable memory ends: reading one byte further is a segmentation fault, with or without
// sanitizers.
class BytesBeforeTheEdge {
 public:
  explicit BytesBeforeTheEdge(std::string_view bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t readable = (bytes.size() + page - 1) / page * page;
    size_ = readable + page;
    start_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start_ == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    char* const edge = static_cast<char*>(start_) + readable;
    if (mprotect(edge, page, PROT_NONE) != 0) throw std::system_error(errno, std::generic_category(), "mprotect");
    if (!bytes.empty()) std::memcpy(edge - bytes.size(), bytes.data(), bytes.size());
    view_ = std::string_view(edge - bytes.size(), bytes.size());
  }
  ~BytesBeforeTheEdge() { munmap(start_, size_); }
  BytesBeforeTheEdge(const BytesBeforeTheEdge&) = delete;
  BytesBeforeTheEdge& operator=(const BytesBeforeTheEdge&) = delete;

  std::string_view view() const { return view_; }

 private:
  void* start_ = nullptr;
  std::size_t size_ = 0;
  std::string_view view_;
};

using Transcript = std::vector<std::string>;

inline std::string Describe(const mivo::Scalar& value) {
  switch (value.tag) {
    case mivo::WireTag::kInt:
      return "int " + std::to_string(value.integer);
    case mivo::WireTag::kBool:
      return value.boolean ? "bool 1" : "bool 0";
    case mivo::WireTag::kDouble: {
      char text[64];
      std::snprintf(text, sizeof(text), "double %a", value.real);
      return text;
    }
    case mivo::WireTag::kString:
      return "string " + std::string(value.bytes);
    case mivo::WireTag::kStream:
      return "stream " + std::string(value.bytes);
    default:
      return "no scalar";
  }
}

// Writes down what a decoder reports, and checks what holds for any report.
class TranscriptSink final : public mivo::DecodeSink {
 public:
  explicit TranscriptSink(std::string_view input) : input_(input) {}

  void OnPositional(const mivo::Scalar& value) override { Note(Describe(value), value.bytes); }
  void OnKey(std::string_view key) override {
    Note("key " + std::string(key), key);
    key_ = key;
  }
  void OnKeyed(std::string_view key, const mivo::Scalar& value) override {
    EXPECT_EQ(key, key_);
    EXPECT_EQ(transcript_.back(), "key " + std::string(key));
    Note("keyed " + Describe(value), value.bytes);
  }
  void OnListBegin() override { Open("["); }
  void OnListElement(const mivo::Scalar& value) override { Note("- " + Describe(value), value.bytes, "["); }
  void OnListEnd() override { Close("[", "]"); }
  void OnListMapBegin() override { Open("{"); }
  void OnListMapEntry(std::string_view key, const mivo::Scalar& value) override {
    EXPECT_EQ(key, key_);
    Note("- " + Describe(value), value.bytes, "{");
  }
  void OnListMapEnd() override { Close("{", "}"); }

  void End(bool result) { transcript_.push_back(result ? "end" : "fault"); }
  const Transcript& transcript() const { return transcript_; }

 private:
  void Note(const std::string& line, std::string_view bytes, const std::string& inside = "") {
    if (inside.empty()) {
      EXPECT_NE(open_, "[") << line;
    } else {
      EXPECT_EQ(open_, inside) << line;
    }
    if (!bytes.empty()) {
      EXPECT_GE(bytes.data(), input_.data());
      EXPECT_LE(bytes.data() + bytes.size(), input_.data() + input_.size());
    }
    transcript_.push_back(line);
  }
  void Open(const std::string& bracket) {
    EXPECT_EQ(open_, "");
    open_ = bracket;
    transcript_.push_back(bracket);
  }
  void Close(const std::string& opened, const std::string& bracket) {
    EXPECT_EQ(open_, opened);
    open_.clear();
    transcript_.push_back(bracket);
  }

  const std::string_view input_;
  std::string key_;
  std::string open_;
  Transcript transcript_;
};

// What the decoder reports for `bytes`, closed by "end" or "fault".
inline Transcript TranscriptOf(std::string_view bytes) {
  const BytesBeforeTheEdge input(bytes);
  TranscriptSink sink(input.view());
  sink.End(mivo::Decode(input.view(), sink));
  return sink.transcript();
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_UNIT_DECODER_TRANSCRIPT_H_
