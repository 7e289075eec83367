// What parameter sets hold, and whose they are. Needs the library linked.
#ifndef MIVO_TESTS_SUPPORT_REPLY_H_
#define MIVO_TESTS_SUPPORT_REPLY_H_

#include <mivo/mivo.h>

#include <memory>
#include <optional>
#include <string>

namespace mivo_test {

// What is missing or of another type is nothing; null sets hold nothing.

inline std::optional<int> IntAt(const MIVOParams* set, int index) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetValue(index);
  if (value == nullptr || !value->IsInt()) return std::nullopt;
  return value->GetInt();
}

inline std::optional<int> IntUnder(const MIVOParams* set, const char* key) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetMap(key);
  if (value == nullptr || !value->IsInt()) return std::nullopt;
  return value->GetInt();
}

inline std::optional<std::string> TextAt(const MIVOParams* set, int index) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetValue(index);
  if (value == nullptr || !value->IsString()) return std::nullopt;
  return value->GetString();
}

inline std::optional<std::string> TextUnder(const MIVOParams* set, const char* key) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetMap(key);
  if (value == nullptr || !value->IsString()) return std::nullopt;
  return value->GetString();
}

inline std::optional<std::string> StreamAt(const MIVOParams* set, int index) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetValue(index);
  if (value == nullptr || !value->IsStream()) return std::nullopt;
  long length = 0;
  const char* const bytes = value->GetStream(length);
  return std::string(bytes, static_cast<std::size_t>(length));
}

// Frees the sets that belong to the caller: those that hold an error code and nothing else. The others may be gone by
// the time this one ends.
class Reply {
 public:
  Reply() = default;
  explicit Reply(MIVOParams* set) : set_(set), error_(IntUnder(set, "errorCode")) {
    if (error_ && set->MapSize() == 1 && set->ParamsSize() == 0) own_.reset(set);
  }

  MIVOParams* get() const { return set_; }
  MIVOParams* operator->() const { return set_; }
  std::optional<int> error() const { return error_; }

 private:
  MIVOParams* set_ = nullptr;
  std::optional<int> error_;
  std::unique_ptr<MIVOParams> own_;
};

constexpr int kNotConnected = -1000;
constexpr int kNoReply = -1001;

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_REPLY_H_
