#include "values/encoder.h"

#include <algorithm>
#include <functional>

#include "values/record_writer.h"

namespace mivo {
namespace {

bool ViewsInto(std::string_view text, const std::string& out) {
  const std::less<> before;
  return !before(text.data(), out.data()) && before(text.data(), out.data() + out.size());
}

// Room comes before a record's first byte: the appends that follow neither fail nor move the bytes, so no half record
// is ever left and `sources` may view `out`.
//
// `put` writes `size` bytes, given where they go and where in the encoding that is. Short ones are written beside the
// string first, so that they are appended in one go.
template <class Put>
void Append(std::string& out, std::size_t size, std::initializer_list<std::string_view*> sources, Put put) {
  constexpr std::size_t kShort = 256;
  ReserveMore(out, size, sources);
  const std::size_t end = out.size();
  if (size <= kShort) {
    char record[kShort];
    put(record, end);
    out.append(record, size);
  } else {
    out.resize(end + size);
    put(out.data() + end, end);
  }
}

}  // namespace

void ReserveMore(std::string& out, std::size_t size, std::initializer_list<std::string_view*> sources) {
  if (out.capacity() - out.size() >= size) return;
  std::string grown;
  grown.reserve(std::max(out.size() + size, 2 * out.capacity()));
  grown.append(out);
  for (std::string_view* source : sources) {
    if (!ViewsInto(*source, out)) continue;
    const auto offset = static_cast<std::size_t>(source->data() - out.data());
    *source = std::string_view(grown.data() + offset, source->size());
  }
  out.swap(grown);
}

void AppendInt(std::string& out, std::int32_t value) {
  Append(out, kIntRecordSize, {}, [&](char* at, std::size_t offset) { PutInt(at, offset, value); });
}

void AppendBool(std::string& out, bool value) {
  Append(out, kBoolRecordSize, {}, [&](char* at, std::size_t offset) { PutBool(at, offset, value); });
}

void AppendDouble(std::string& out, double value) {
  Append(out, kDoubleRecordSize, {}, [&](char* at, std::size_t offset) { PutDouble(at, offset, value); });
}

void AppendString(std::string& out, std::string_view text) {
  Append(out, StringRecordSize(text.size()), {&text},
         [&](char* at, std::size_t offset) { PutText(at, offset, WireTag::kString, text); });
}

void AppendStream(std::string& out, std::string_view bytes) {
  Append(out, StreamRecordSize(bytes.size()), {&bytes},
         [&](char* at, std::size_t offset) { PutText(at, offset, WireTag::kStream, bytes); });
}

void AppendKey(std::string& out, std::string_view key) {
  Append(out, KeySize(key.size()), {&key}, [&](char* at, std::size_t offset) { PutKey(at, offset, key); });
}

void AppendKeyValueInt(std::string& out, std::string_view key, std::int32_t value) {
  Append(out, KeySize(key.size()) + kIntRecordSize, {&key}, [&](char* at, std::size_t offset) {
    at = PutKey(at, offset, key);
    PutInt(at, offset + KeySize(key.size()), value);
  });
}

void AppendKeyValueBool(std::string& out, std::string_view key, bool value) {
  Append(out, KeySize(key.size()) + kBoolRecordSize, {&key}, [&](char* at, std::size_t offset) {
    at = PutKey(at, offset, key);
    PutBool(at, offset + KeySize(key.size()), value);
  });
}

void AppendKeyValueDouble(std::string& out, std::string_view key, double value) {
  Append(out, KeySize(key.size()) + kDoubleRecordSize, {&key}, [&](char* at, std::size_t offset) {
    at = PutKey(at, offset, key);
    PutDouble(at, offset + KeySize(key.size()), value);
  });
}

void AppendKeyValueString(std::string& out, std::string_view key, std::string_view text) {
  Append(out, KeySize(key.size()) + StringRecordSize(text.size()), {&key, &text}, [&](char* at, std::size_t offset) {
    at = PutKey(at, offset, key);
    PutText(at, offset + KeySize(key.size()), WireTag::kString, text);
  });
}

void AppendKeyValueStream(std::string& out, std::string_view key, std::string_view bytes) {
  Append(out, KeySize(key.size()) + StreamRecordSize(bytes.size()), {&key, &bytes}, [&](char* at, std::size_t offset) {
    at = PutKey(at, offset, key);
    PutText(at, offset + KeySize(key.size()), WireTag::kStream, bytes);
  });
}

void AppendListHeader(std::string& out, std::uint32_t count) {
  Append(out, kListHeaderSize, {}, [&](char* at, std::size_t) { PutListHeader(at, count); });
}

}  // namespace mivo
