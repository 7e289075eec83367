#include <mivo/params.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string_view>

#include "values/decoder.h"
#include "values/encoder.h"

namespace {

using mivo::DecodeSink;
using mivo::Scalar;
using mivo::WireTag;

// A negative count is a caller's mistake that must not become a huge one.
std::string_view Bytes(const char* bytes, long length) {
  return length > 0 ? std::string_view(bytes, static_cast<std::size_t>(length)) : std::string_view();
}

std::unique_ptr<MIVOValue> NewValue(const Scalar& scalar) {
  switch (scalar.tag) {
    case WireTag::kInt:
      return std::make_unique<MIVOValue>(static_cast<int>(scalar.integer));
    case WireTag::kBool:
      return std::make_unique<MIVOValue>(scalar.boolean);
    case WireTag::kDouble:
      return std::make_unique<MIVOValue>(scalar.real);
    default:
      return std::make_unique<MIVOValue>(scalar.bytes.data(), static_cast<long>(scalar.bytes.size()),
                                         scalar.tag == WireTag::kString ? MIVOValue::String : MIVOValue::Stream);
  }
}

void AppendOwned(std::vector<MIVOValue*>& values, std::unique_ptr<MIVOValue> value) {
  values.push_back(value.get());
  value.release();
}

// Fills the read face of a set.
class ReadFace final : public DecodeSink {
 public:
  ReadFace(std::vector<MIVOValue*>& values, std::map<std::string, MIVOValue*>& keyed_values)
      : values_(values), keyed_values_(keyed_values), entry_(keyed_values.end()) {}

  void OnPositional(const Scalar& value) override { AppendOwned(values_, NewValue(value)); }

  void OnKey(std::string_view key) override {
    key_.assign(key);
    entry_ = keyed_values_.lower_bound(key_);
    entry_exists_ = entry_ != keyed_values_.end() && entry_->first == key_;
    if (!entry_exists_) return;
    delete entry_->second;
    entry_->second = nullptr;
  }

  void OnKeyed(std::string_view, const Scalar& scalar) override {
    std::unique_ptr<MIVOValue> value = NewValue(scalar);
    if (!entry_exists_) entry_ = keyed_values_.emplace_hint(entry_, key_, nullptr);
    entry_->second = value.release();
  }

  void OnListBegin() override { unfinished_ = std::make_unique<MIVOValue>(MIVOValue::List); }
  void OnListElement(const Scalar& value) override { AppendOwned(unfinished_->list, NewValue(value)); }
  void OnListEnd() override { AppendOwned(values_, std::move(unfinished_)); }

  void OnListMapBegin() override { unfinished_ = std::make_unique<MIVOValue>(MIVOValue::ListMap); }
  // Nobody else has seen the list map yet, so a replaced element is not shared and goes.
  void OnListMapEntry(std::string_view key, const Scalar& scalar) override {
    std::unique_ptr<MIVOValue> value = NewValue(scalar);
    MIVOValue*& entry = unfinished_->listMap[std::string(key)];
    delete entry;
    entry = value.release();
  }
  void OnListMapEnd() override { AppendOwned(values_, std::move(unfinished_)); }

 private:
  std::vector<MIVOValue*>& values_;
  std::map<std::string, MIVOValue*>& keyed_values_;

  // The key named last and its place among the top-level entries.
  std::string key_;
  std::map<std::string, MIVOValue*>::iterator entry_;
  bool entry_exists_ = false;

  std::unique_ptr<MIVOValue> unfinished_;  // goes with the sink when a fault cuts its list
};

void ClearReadFace(std::vector<MIVOValue*>& values, std::map<std::string, MIVOValue*>& keyed_values,
                   std::map<const char*, MIVOValue*>& keyed_values_by_pointer) {
  for (MIVOValue* value : values)
    delete value;
  std::vector<MIVOValue*>().swap(values);
  keyed_values_by_pointer.clear();
  for (const auto& entry : keyed_values)
    delete entry.second;
  keyed_values.clear();
}

std::string_view TextUpToNul(const MIVOValue& value) {
  return value.GetString();
}

std::string_view WholeText(const MIVOValue& value) {
  long length = 0;
  const char* const bytes = value.GetStream(length);
  return Bytes(bytes, length);
}

std::size_t RecordSize(const MIVOValue& element) {
  if (element.IsBool()) return mivo::kBoolRecordSize;
  if (element.IsInt()) return mivo::kIntRecordSize;
  if (element.IsDouble()) return mivo::kDoubleRecordSize;
  if (element.IsString()) return mivo::StringRecordSize(TextUpToNul(element).size());
  if (element.IsStream()) return mivo::StreamRecordSize(WholeText(element).size());
  return 0;
}

// An element of another type is counted in the list's header and not written.
void AppendElement(std::string& out, const MIVOValue& element) {
  if (element.IsBool()) return mivo::AppendBool(out, element.GetBool());
  if (element.IsInt()) return mivo::AppendInt(out, element.GetInt());
  if (element.IsDouble()) return mivo::AppendDouble(out, element.GetDouble());
  if (element.IsString()) return mivo::AppendString(out, TextUpToNul(element));
  if (element.IsStream()) return mivo::AppendStream(out, WholeText(element));
}

}  // namespace

MIVOParams::MIVOParams() : buffer_taken_(false) {
  auto buffer = std::make_unique<std::string>();
  auto values = std::make_unique<std::vector<MIVOValue*>>();
  auto keyed_values = std::make_unique<std::map<std::string, MIVOValue*>>();
  auto keyed_values_by_pointer = std::make_unique<std::map<const char*, MIVOValue*>>();
  buffer_ = buffer.release();
  values_ = values.release();
  keyed_values_ = keyed_values.release();
  keyed_values_by_pointer_ = keyed_values_by_pointer.release();
}

MIVOParams::MIVOParams(const MIVOParams& source) : buffer_taken_(false) {
  auto buffer = std::make_unique<std::string>(*source.buffer_);
  auto values = std::make_unique<std::vector<MIVOValue*>>(*source.values_);
  auto keyed_values = std::make_unique<std::map<std::string, MIVOValue*>>(*source.keyed_values_);
  auto keyed_values_by_pointer = std::make_unique<std::map<const char*, MIVOValue*>>();
  buffer_ = buffer.release();
  values_ = values.release();
  keyed_values_ = keyed_values.release();
  keyed_values_by_pointer_ = keyed_values_by_pointer.release();
}

MIVOParams::~MIVOParams() {
  Clear();
  delete buffer_;
  delete values_;
  delete keyed_values_;
  delete keyed_values_by_pointer_;
}

void MIVOParams::Clear() {
  buffer_->clear();
  ClearReadFace(*values_, *keyed_values_, *keyed_values_by_pointer_);
}

void MIVOParams::AddInt(int value) {
  mivo::AppendInt(*buffer_, value);
}

void MIVOParams::AddBool(bool value) {
  mivo::AppendBool(*buffer_, value);
}

void MIVOParams::AddDouble(double value) {
  mivo::AppendDouble(*buffer_, value);
}

void MIVOParams::AddString(const char* text) {
  mivo::AppendString(*buffer_, text);
}

void MIVOParams::AddStream(const char* bytes, long length) {
  mivo::AppendStream(*buffer_, Bytes(bytes, length));
}

void MIVOParams::AddKeyValueInt(const char* key, int value) {
  mivo::AppendKeyValueInt(*buffer_, key, value);
}

void MIVOParams::AddKeyValueBool(const char* key, bool value) {
  mivo::AppendKeyValueBool(*buffer_, key, value);
}

void MIVOParams::AddKeyValueDouble(const char* key, double value) {
  mivo::AppendKeyValueDouble(*buffer_, key, value);
}

void MIVOParams::AddKeyValueString(const char* key, const char* text) {
  mivo::AppendKeyValueString(*buffer_, key, text);
}

void MIVOParams::AddKeyValueStream(const char* key, const char* bytes, long length) {
  mivo::AppendKeyValueStream(*buffer_, key, Bytes(bytes, length));
}

ListParams* MIVOParams::CreateListParams() {
  return new ListParams();
}

void MIVOParams::AddList(ListParams* list) {
  const std::unique_ptr<ListParams> owned(list);
  std::size_t size = mivo::kListHeaderSize;
  for (const MIVOValue* element : owned->elements_)
    size += RecordSize(*element);
  mivo::ReserveMore(*buffer_, size);
  mivo::AppendListHeader(*buffer_, static_cast<std::uint32_t>(owned->elements_.size()));
  for (const MIVOValue* element : owned->elements_)
    AppendElement(*buffer_, *element);
}

std::string* MIVOParams::GetParamas() {
  return buffer_;
}

const char* MIVOParams::GetParamasPtr() const {
  return buffer_->data();
}

int MIVOParams::GetParamasSize() const {
  return static_cast<int>(std::min<std::size_t>(buffer_->size(), INT_MAX));
}

int MIVOParams::Size() const {
  return GetParamasSize();
}

void MIVOParams::GetBuffer() {
  buffer_taken_ = true;
}

bool MIVOParams::IsGetBuffer() const {
  return buffer_taken_;
}

int MIVOParams::ParamsSize() const {
  return static_cast<int>(values_->size());
}

int MIVOParams::MapSize() const {
  return static_cast<int>(keyed_values_->size());
}

MIVOValue* MIVOParams::GetValue(int index) const {
  if (index < 0 || index >= ParamsSize()) return nullptr;
  return (*values_)[static_cast<std::size_t>(index)];
}

MIVOValue* MIVOParams::GetMap(const char* key) const {
  if (key == nullptr) return nullptr;
  const auto entry = keyed_values_->find(key);
  return entry == keyed_values_->end() ? nullptr : entry->second;
}

std::map<const char*, MIVOValue*>* MIVOParams::GetMapPtr() {
  if (keyed_values_by_pointer_->empty()) {
    for (const auto& entry : *keyed_values_)
      keyed_values_by_pointer_->emplace(entry.first.c_str(), entry.second);
  }
  return keyed_values_by_pointer_;
}

// The copy comes first: the input may be this set's own buffer, or a stream among the values about to be destroyed.
bool MIVOParams::Parser(const char* bytes, int length) {
  buffer_->assign(Bytes(bytes, length));
  return ToParams();
}

bool MIVOParams::ToParams() {
  ClearReadFace(*values_, *keyed_values_, *keyed_values_by_pointer_);
  ReadFace read_face(*values_, *keyed_values_);
  return mivo::Decode(*buffer_, read_face);
}
