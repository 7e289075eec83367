#include "values/part_encoder.h"

#include "values/encoder.h"
#include "values/record_writer.h"

namespace mivo {

char* PartEncoder::Room(std::size_t size) {
  ReserveMore(out_, size);
  out_.resize(out_.size() + size);
  return out_.data() + out_.size() - size;
}

void PartEncoder::KeyValueInt(std::string_view key, std::int32_t value) {
  const std::uint64_t offset = end();
  char* const record = PutKey(Room(KeySize(key.size()) + kIntRecordSize), offset, key);
  PutInt(record, offset + KeySize(key.size()), value);
}

void PartEncoder::KeyValueString(std::string_view key, std::string_view text) {
  const std::uint64_t offset = end();
  char* const record = PutKey(Room(KeySize(key.size()) + StringRecordSize(text.size())), offset, key);
  PutText(record, offset + KeySize(key.size()), WireTag::kString, text);
}

void PartEncoder::OpenKeyValueStream(std::string_view key, std::uint64_t size) {
  const std::uint64_t offset = end();
  PutTextHead(PutKey(Room(KeySize(key.size()) + kTextHeadSize), offset, key), WireTag::kStream, size);
}

void PartEncoder::CloseStream() {
  const std::uint64_t offset = end();
  PutU32(Room(kStampSize), static_cast<std::uint32_t>(offset));
}

}  // namespace mivo
