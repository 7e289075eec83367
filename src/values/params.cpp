#include <mivo/params.h>

#include <algorithm>
#include <climits>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <utility>

#include "values/encoder.h"
#include "values/encoding_buffer.h"
#include "values/params_bytes.h"
#include "values/read_face.h"
#include "values/record_writer.h"

namespace {

using mivo::EncodingBuffer;
using mivo::KeySize;
using mivo::ParamsBytes;
using mivo::ReadFace;
using mivo::StringRecordSize;
using mivo::WireTag;

// A negative count is a caller's mistake that must not become a huge one.
std::string_view Bytes(const char* bytes, long length) {
  return length > 0 ? std::string_view(bytes, static_cast<std::size_t>(length)) : std::string_view();
}

// From here on a text is copied in one go; below, what it costs to have room beforehand is less than that.
constexpr std::size_t kLongText = 4096;

// Appends `size` bytes that `put` writes, given where they go, where in the encoding that is, and the views. All the
// room they need is there before the first byte of them: the encoding never ends in half a record. The views may show
// the encoding itself.
//
// Two steps, because nearly always there is room.
template <class Put, class... Views>
[[gnu::noinline]] void AppendWithoutRoom(EncodingBuffer*& made_buffer, ReadFace* read_face, std::size_t size, Put put,
                                         Views... views) {
  if (made_buffer == nullptr) made_buffer = EncodingBuffer::New();
  EncodingBuffer& buffer = *made_buffer;
  if (buffer.is_shown()) {
    std::string& text = buffer.Text();
    mivo::ReserveMore(text, size, {&views...});
    const std::size_t end = text.size();
    text.resize(end + size);
    put(text.data() + end, end, views...);
    return;
  }
  std::string before;
  buffer.Reserve(size, {&views...}, before);
  buffer.Open(size);
  char* const at = buffer.Room(size);
  put(at, buffer.end(), views...);
  buffer.Wrote(at, buffer.end(), size);
  if (!before.empty() && read_face != nullptr) read_face->TakeBuffer(std::move(before));
}

template <class Put, class... Views>
void Append(EncodingBuffer*& made_buffer, ReadFace* read_face, std::size_t size, Put put, Views... views) {
  EncodingBuffer* const buffer = made_buffer;
  char* const at = buffer == nullptr ? nullptr : buffer->Room(size);
  if (at == nullptr) return AppendWithoutRoom(made_buffer, read_face, size, put, views...);
  // Kept here: for the compiler, the bytes that are written might be the buffer's own members.
  const std::size_t end = buffer->end();
  put(at, end, views...);
  buffer->Wrote(at, end, size);
}

// `head` is what stands before a long text's bytes.
void AppendLong(EncodingBuffer& buffer, ReadFace* read_face, std::string_view head, std::string_view bytes) {
  std::string before;
  buffer.Reserve(head.size() + bytes.size() + mivo::kStampSize, {&bytes}, before);
  buffer.Append(head);
  buffer.Append(bytes);
  char stamp[mivo::kStampSize];
  mivo::PutU32(stamp, static_cast<std::uint32_t>(buffer.end()));
  buffer.Append(std::string_view(stamp, sizeof stamp));
  if (!before.empty() && read_face != nullptr) read_face->TakeBuffer(std::move(before));
}

bool IsLong(const EncodingBuffer* buffer, std::string_view bytes) {
  return bytes.size() >= kLongText && buffer != nullptr && !buffer->is_shown();
}

void AppendText(EncodingBuffer*& buffer, ReadFace* read_face, WireTag tag, std::string_view text) {
  if (IsLong(buffer, text)) {
    char head[mivo::kTextHeadSize];
    mivo::PutTextHead(head, tag, text.size());
    return AppendLong(*buffer, read_face, std::string_view(head, sizeof head), text);
  }
  Append(
      buffer, read_face, StringRecordSize(text.size()),
      [tag](char* at, std::size_t offset, std::string_view bytes) { mivo::PutText(at, offset, tag, bytes); }, text);
}

void AppendKeyAndText(EncodingBuffer*& buffer, ReadFace* read_face, std::string_view name, WireTag tag,
                      std::string_view text) {
  if (IsLong(buffer, text)) {
    std::string head(KeySize(name.size()) + mivo::kTextHeadSize, '\0');
    mivo::PutTextHead(mivo::PutKey(head.data(), buffer->view().size(), name), tag, text.size());
    return AppendLong(*buffer, read_face, head, text);
  }
  Append(
      buffer, read_face, KeySize(name.size()) + StringRecordSize(text.size()),
      [tag](char* at, std::size_t offset, std::string_view key, std::string_view bytes) {
        mivo::PutText(mivo::PutKey(at, offset, key), offset + KeySize(key.size()), tag, bytes);
      },
      name, text);
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
char* PutElement(char* at, std::size_t offset, const MIVOValue& element) {
  if (element.IsBool()) return mivo::PutBool(at, offset, element.GetBool());
  if (element.IsInt()) return mivo::PutInt(at, offset, element.GetInt());
  if (element.IsDouble()) return mivo::PutDouble(at, offset, element.GetDouble());
  if (element.IsString()) return mivo::PutText(at, offset, WireTag::kString, TextUpToNul(element));
  if (element.IsStream()) return mivo::PutText(at, offset, WireTag::kStream, WholeText(element));
  return at;
}

}  // namespace

MIVOParams::MIVOParams()
    : buffer_taken_(false), buffer_(nullptr), read_face_(nullptr), values_by_key_(nullptr), key_texts_(nullptr) {}

MIVOParams::MIVOParams(const MIVOParams& source) : MIVOParams() {
  const std::string_view encoding = ParamsBytes::Of(source);
  if (!encoding.empty()) ParamsBytes::Buffer(*this).Assign(encoding);
  if (source.read_face_ == nullptr) return;
  source.read_face_->BeforeItIsShared();
  source.read_face_->AddReference();
  read_face_ = source.read_face_;
}

MIVOParams::~MIVOParams() {
  ParamsBytes::DropReadFace(*this);
  EncodingBuffer::Delete(buffer_);
  delete values_by_key_;
}

void MIVOParams::Clear() {
  ParamsBytes::DropReadFace(*this);
  if (buffer_ != nullptr) buffer_->Clear();
}

void MIVOParams::AddInt(int value) {
  Append(buffer_, read_face_, mivo::kIntRecordSize,
         [value](char* at, std::size_t offset) { mivo::PutInt(at, offset, value); });
}

void MIVOParams::AddBool(bool value) {
  Append(buffer_, read_face_, mivo::kBoolRecordSize,
         [value](char* at, std::size_t offset) { mivo::PutBool(at, offset, value); });
}

void MIVOParams::AddDouble(double value) {
  Append(buffer_, read_face_, mivo::kDoubleRecordSize,
         [value](char* at, std::size_t offset) { mivo::PutDouble(at, offset, value); });
}

void MIVOParams::AddString(const char* text) {
  AppendText(buffer_, read_face_, WireTag::kString, text);
}

void MIVOParams::AddStream(const char* bytes, long length) {
  AppendText(buffer_, read_face_, WireTag::kStream, Bytes(bytes, length));
}

void MIVOParams::AddKeyValueInt(const char* key, int value) {
  const std::string_view name = key;
  Append(
      buffer_, read_face_, KeySize(name.size()) + mivo::kIntRecordSize,
      [value](char* at, std::size_t offset, std::string_view text) {
        mivo::PutInt(mivo::PutKey(at, offset, text), offset + KeySize(text.size()), value);
      },
      name);
}

void MIVOParams::AddKeyValueBool(const char* key, bool value) {
  const std::string_view name = key;
  Append(
      buffer_, read_face_, KeySize(name.size()) + mivo::kBoolRecordSize,
      [value](char* at, std::size_t offset, std::string_view text) {
        mivo::PutBool(mivo::PutKey(at, offset, text), offset + KeySize(text.size()), value);
      },
      name);
}

void MIVOParams::AddKeyValueDouble(const char* key, double value) {
  const std::string_view name = key;
  Append(
      buffer_, read_face_, KeySize(name.size()) + mivo::kDoubleRecordSize,
      [value](char* at, std::size_t offset, std::string_view text) {
        mivo::PutDouble(mivo::PutKey(at, offset, text), offset + KeySize(text.size()), value);
      },
      name);
}

void MIVOParams::AddKeyValueString(const char* key, const char* text) {
  AppendKeyAndText(buffer_, read_face_, key, WireTag::kString, text);
}

void MIVOParams::AddKeyValueStream(const char* key, const char* bytes, long length) {
  AppendKeyAndText(buffer_, read_face_, key, WireTag::kStream, Bytes(bytes, length));
}

ListParams* MIVOParams::CreateListParams() {
  return new ListParams();
}

void MIVOParams::AddList(ListParams* list) {
  const std::unique_ptr<ListParams> owned(list);
  const std::vector<MIVOValue*>& elements = owned->elements_;
  std::size_t size = mivo::kListHeaderSize;
  for (const MIVOValue* element : elements)
    size += RecordSize(*element);
  Append(buffer_, read_face_, size, [&](char* at, std::size_t offset) {
    const char* const start = at;
    at = mivo::PutListHeader(at, static_cast<std::uint32_t>(elements.size()));
    for (const MIVOValue* element : elements)
      at = PutElement(at, offset + static_cast<std::size_t>(at - start), *element);
  });
}

std::string* MIVOParams::GetParamas() {
  EncodingBuffer& buffer = ParamsBytes::Buffer(*this);
  if (read_face_ != nullptr && !buffer.is_shown()) read_face_->BeforeTheBufferChanges();
  return &buffer.Text();
}

const char* MIVOParams::GetParamasPtr() const {
  return buffer_ == nullptr ? "" : buffer_->view().data();
}

int MIVOParams::GetParamasSize() const {
  return static_cast<int>(std::min<std::size_t>(ParamsBytes::Of(*this).size(), INT_MAX));
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
  return read_face_ == nullptr ? 0 : static_cast<int>(read_face_->positional_count());
}

int MIVOParams::MapSize() const {
  return read_face_ == nullptr ? 0 : static_cast<int>(read_face_->keyed_count());
}

MIVOValue* MIVOParams::GetValue(int index) const {
  if (index < 0 || index >= ParamsSize()) return nullptr;
  return read_face_->Positional(static_cast<std::uint32_t>(index));
}

MIVOValue* MIVOParams::GetMap(const char* key) const {
  return key == nullptr || read_face_ == nullptr ? nullptr : read_face_->Find(key);
}

std::map<const char*, MIVOValue*>* MIVOParams::GetMapPtr() {
  if (values_by_key_ == nullptr) values_by_key_ = new std::map<const char*, MIVOValue*>;
  if (!values_by_key_->empty() || MapSize() == 0) return values_by_key_;
  const std::uint32_t count = read_face_->keyed_count();
  const bool has_texts = key_texts_ != nullptr;
  if (!has_texts) {
    std::size_t size = 0;
    for (std::uint32_t number = 0; number < count; ++number)
      size += read_face_->Key(number).size() + 1;
    key_texts_ = new char[size];
  }
  char* text = key_texts_;
  for (std::uint32_t number = 0; number < count; ++number) {
    const std::string_view key = read_face_->Key(number);
    // The application may still have the pointers of an earlier time, and change what they show.
    if (!has_texts) *mivo::PutBytes(text, key) = '\0';
    values_by_key_->emplace(text, read_face_->Keyed(number));
    text += key.size() + 1;
  }
  return values_by_key_;
}

// The copy comes first: the input may be this set's own buffer, or a stream among the values about to be destroyed.
bool MIVOParams::Parser(const char* bytes, int length) {
  const std::string_view input = Bytes(bytes, length);
  if (!input.empty() || buffer_ != nullptr) ParamsBytes::Buffer(*this).Assign(input);
  return ToParams();
}

bool MIVOParams::ToParams() {
  return ParamsBytes::DecodeBuffer(*this);
}
