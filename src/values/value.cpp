#include <mivo/value.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "base/spare_memory.h"
#include "values/thread_stock.h"

namespace {

// The field is public and may hold a number that is no enumerator; an int of it can be read all the same.
int NumberOf(const MIVOValue::Type& type) {
  static_assert(sizeof(int) == sizeof(type), "");
  int number = 0;
  std::memcpy(&number, &type, sizeof(number));
  return number;
}

constexpr std::size_t kLongestSpare = 64;
using SpareTexts = mivo::ThreadStock<std::string, 128>;

std::string* NewText(const char* bytes, long length) {
  if (bytes == nullptr && length != 0) throw std::logic_error("basic_string::_S_construct null not valid");
  const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
  if (size <= kLongestSpare) {
    if (std::unique_ptr<std::string> spare{SpareTexts::Take()}) {
      spare->assign(bytes, size);
      return spare.release();
    }
  }
  std::string text = mivo::TakeSpareString(size);
  if (size > 0) text.assign(bytes, size);
  return new std::string(std::move(text));
}

void DeleteText(std::string* text) {
  if (text == nullptr || (text->capacity() <= kLongestSpare && SpareTexts::Give(text))) return;
  if (text->capacity() >= mivo::kLeastSpare) mivo::GiveSpareString(std::move(*text));
  delete text;
}

template <typename... Arguments>
void AppendNew(std::vector<MIVOValue*>& elements, Arguments... arguments) {
  auto element = std::make_unique<MIVOValue>(arguments...);
  elements.push_back(element.get());
  element.release();
}

// An element that stood under the key is abandoned, not destroyed: a copy of the list map may still show it, and
// nothing here could tell.
template <typename... Arguments>
void StoreNew(std::map<std::string, MIVOValue*>& entries, const char* key, Arguments... arguments) {
  auto element = std::make_unique<MIVOValue>(arguments...);
  entries[key] = element.get();
  element.release();
}

}  // namespace

MIVOValue::MIVOValue() : MIVOValue(None) {}

// The pointer is the widest member: it zeroes the whole union.
MIVOValue::MIVOValue(Type value_type) : type(value_type) {
  data.text = nullptr;
}

MIVOValue::MIVOValue(int value) : MIVOValue(Int) {
  data.integer = value;
}

MIVOValue::MIVOValue(bool value) : MIVOValue(Bool) {
  data.boolean = value;
}

MIVOValue::MIVOValue(double value) : MIVOValue(Double) {
  data.real = value;
}

MIVOValue::MIVOValue(const char* bytes, long length, Type value_type) : type(value_type) {
  data.text = NewText(bytes, length);
}

MIVOValue::MIVOValue(const MIVOValue& source) : MIVOValue() {
  *this = source;
}

// What the source holds is fetched before the target is cleared: the source may be an element of the target, and a
// failed allocation must leave the target whole.
MIVOValue& MIVOValue::operator=(const MIVOValue& source) {
  if (this == &source) return *this;
  MIVOValue fetched;
  const int source_type = NumberOf(source.type);
  switch (source_type) {
    case Bool:
      fetched.data.boolean = source.GetBool();
      break;
    case Int:
      fetched.data.integer = source.GetInt();
      break;
    case Double:
      fetched.data.real = source.GetDouble();
      break;
    case String:
    case Stream:
      if (source.data.text != nullptr) fetched.data.text = new std::string(*source.data.text);
      break;
    case List:
      fetched.list = source.list;
      break;
    case ListMap:
      fetched.listMap = source.listMap;
      break;
    default:
      fetched.data = data;
      break;
  }
  clear();
  data = fetched.data;
  if (source_type == List) list.swap(fetched.list);
  if (source_type == ListMap) listMap.swap(fetched.listMap);
  std::memcpy(&type, &source_type, sizeof(type));
  return *this;
}

// Numbers own nothing, and most values are numbers.
MIVOValue::~MIVOValue() {
  if (NumberOf(type) >= String) clear();
}

void MIVOValue::clear() {
  switch (NumberOf(type)) {
    case String:
    case Stream:
      DeleteText(data.text);
      break;
    case List:
      for (MIVOValue* element : list)
        delete element;
      list.clear();
      break;
    case ListMap:
      for (const auto& entry : listMap)
        delete entry.second;
      listMap.clear();
      break;
    default:
      break;
  }
  type = None;
}

// Copied out byte by byte: the getters do not ask for the type, and another member may be the active one.
int MIVOValue::GetInt() const {
  std::int32_t value = 0;
  std::memcpy(&value, &data, sizeof(value));
  return value;
}

bool MIVOValue::GetBool() const {
  unsigned char value = 0;
  std::memcpy(&value, &data, sizeof(value));
  return value != 0;
}

double MIVOValue::GetDouble() const {
  double value = 0;
  std::memcpy(&value, &data, sizeof(value));
  return value;
}

const char* MIVOValue::GetString() const {
  return data.text == nullptr ? nullptr : data.text->c_str();
}

const char* MIVOValue::GetStream(long& length) const {
  length = data.text == nullptr ? 0 : static_cast<long>(data.text->size());
  return GetString();
}

std::vector<MIVOValue*>* MIVOValue::GetList() {
  return &list;
}

bool MIVOValue::IsBool() const {
  return NumberOf(type) == Bool;
}

bool MIVOValue::IsInt() const {
  return NumberOf(type) == Int;
}

bool MIVOValue::IsDouble() const {
  return NumberOf(type) == Double;
}

bool MIVOValue::IsString() const {
  return NumberOf(type) == String;
}

bool MIVOValue::IsStream() const {
  return NumberOf(type) == Stream;
}

bool MIVOValue::IsList() const {
  return NumberOf(type) == List;
}

void MIVOValue::AddListBool(bool value) {
  AppendNew(list, value);
}

void MIVOValue::AddListInt(int value) {
  AppendNew(list, value);
}

void MIVOValue::AddListDouble(double value) {
  AppendNew(list, value);
}

void MIVOValue::AddListString(const char* bytes, long length) {
  AppendNew(list, bytes, length, String);
}

void MIVOValue::AddListStream(const char* bytes, long length) {
  AppendNew(list, bytes, length, Stream);
}

void MIVOValue::AddListMapBool(const char* key, bool value) {
  StoreNew(listMap, key, value);
}

void MIVOValue::AddListMapInt(const char* key, int value) {
  StoreNew(listMap, key, value);
}

void MIVOValue::AddListMapDouble(const char* key, double value) {
  StoreNew(listMap, key, value);
}

void MIVOValue::AddListMapString(const char* key, const char* bytes, long length) {
  StoreNew(listMap, key, bytes, length, String);
}

void MIVOValue::AddListMapStream(const char* key, const char* bytes, long length) {
  StoreNew(listMap, key, bytes, length, Stream);
}

ListParams::ListParams() = default;

ListParams::~ListParams() {
  for (MIVOValue* element : elements_)
    delete element;
}

void ListParams::AddBool(bool value) {
  AppendNew(elements_, value);
}

void ListParams::AddInt(int value) {
  AppendNew(elements_, value);
}

void ListParams::AddDouble(double value) {
  AppendNew(elements_, value);
}

void ListParams::AddString(const char* bytes, long length) {
  AppendNew(elements_, bytes, length, MIVOValue::String);
}

void ListParams::AddStream(const char* bytes, long length) {
  AppendNew(elements_, bytes, length, MIVOValue::Stream);
}
