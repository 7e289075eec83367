// Arguments, results and errors of a call in parameter sets.
#ifndef MIVO_RPC_MESSAGE_H_
#define MIVO_RPC_MESSAGE_H_

#include <mivo/calls.h>
#include <mivo/params.h>
#include <mivo/rpc/codec.h>
#include <mivo/rpc/error.h>
#include <mivo/rpc/wire_names.h>

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mivo {
namespace rpc {

// What a peer that knows nothing of this layer answers to a name it does not have.
inline constexpr std::string_view kNoEvent = "no event: ";

// A list of the encoding's own says to everybody what it is; only as an argument or result it can be one.
template <class T>
struct IsListOfScalars : std::false_type {};
template <class T>
struct IsListOfScalars<std::vector<T>>
    : std::bool_constant<std::is_same_v<T, bool> || std::is_same_v<T, double> || std::is_same_v<T, std::string> ||
                         (std::is_same_v<T, int>)> {};

template <class T>
void AddArgument(MIVOParams& set, const T& value) {
  using Value = std::decay_t<const T&>;
  if constexpr (IsListOfScalars<Value>::value) {
    ListParams* const list = set.CreateListParams();
    for (auto&& element : value) {
      using Element = typename Value::value_type;
      if constexpr (std::is_same_v<Element, bool>) {
        list->AddBool(element);
      } else if constexpr (std::is_same_v<Element, int>) {
        list->AddInt(element);
      } else if constexpr (std::is_same_v<Element, double>) {
        list->AddDouble(element);
      } else if (element.find('\0') != std::string::npos) {
        list->AddStream(element.data(), static_cast<long>(element.size()));
      } else {
        list->AddString(element.data(), static_cast<long>(element.size()));
      }
    }
    set.AddList(list);
  } else {
    Codec<Value>::Write(Slot(set), value);
  }
}

template <class... T>
void AddArguments(MIVOParams& set, const T&... values) {
  (AddArgument(set, values), ...);
}

template <class Tuple>
struct ReadArguments;
template <class... T>
struct ReadArguments<std::tuple<T...>> {
  static std::tuple<T...> From(const MIVOParams& set) {
    Place place("argument");
    place.counts_from_one = true;
    const std::size_t count = static_cast<std::size_t>(set.ParamsSize());
    if (count > sizeof...(T)) {
      throw WrongType("expected " + std::to_string(sizeof...(T)) + " arguments, found " + std::to_string(count));
    }
    return TupleCodec<T...>::ReadEach(set, place, std::index_sequence_for<T...>());
  }
};

inline void AddError(MIVOParams& reply, const std::string& code, const std::string& text) {
  Slot(reply, kErrorKey).Text(code);
  Slot(reply, kErrorTextKey).Text(text);
}

[[noreturn]] inline void ThrowError(const std::string& code, const std::string& text) {
  if (code == NoSuchMethod::kCode) throw NoSuchMethod(text);
  if (code == WrongType::kCode) throw WrongType(text);
  throw Error(code, text);
}

// Throws what a call without a result has come to.
inline void RequireResult(const std::string& name, CallOutcome outcome, const MIVOParams& reply) {
  switch (outcome) {
    case CallOutcome::kAnswered:
      break;
    case CallOutcome::kNotSent:
      throw NotConnected(name + ": not connected");
    case CallOutcome::kNoAnswer:
      throw NoAnswer(name + ": no answer in time");
    case CallOutcome::kDisconnected:
      throw Disconnected(name + ": the connection ended before the answer came");
  }
  const MIVOValue* const code = reply.GetMap(kErrorKey);
  if (code != nullptr && (code->IsString() || code->IsStream())) {
    const MIVOValue* const text = reply.GetMap(kErrorTextKey);
    const bool has_text = text != nullptr && (text->IsString() || text->IsStream());
    ThrowError(std::string(TextOf(*code)), has_text ? std::string(TextOf(*text)) : std::string());
  }
  const MIVOValue* const first = reply.GetValue(0);
  if (first == nullptr || !first->IsString()) return;
  const std::string_view words = TextOf(*first);
  if (words.substr(0, kNoEvent.size()) == kNoEvent && words.substr(kNoEvent.size()) == name) {
    throw NoSuchMethod(name + ": the peer offers no such method");
  }
}

template <class T>
T ReadResult(const std::string& name, const MIVOParams& reply) {
  if constexpr (!std::is_void_v<T>) {
    try {
      return Codec<T>::Read(reply.GetValue(0), Place("result"));
    } catch (const WrongType& error) {
      throw WrongType(name + ": " + error.what());
    }
  }
}

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_MESSAGE_H_
