#include "largedata/slice.h"

#include <mivo/params.h>

#include "transport/builtin_keys.h"

namespace mivo {

void WriteSlice(const Slice& slice, MIVOParams* out) {
  out->AddKeyValueBool(kLargeDataKey, true);
  out->AddKeyValueInt(kThreadIdKey, slice.key);
  out->AddInt(slice.total_size);
  out->AddStream(slice.bytes.data(), static_cast<long>(slice.bytes.size()));
}

Slice ReadSlice(const MIVOParams& params) {
  Slice slice;
  const MIVOValue* const key = params.GetMap(kThreadIdKey);
  if (key != nullptr && key->IsInt()) slice.key = key->GetInt();
  const MIVOValue* const total_size = params.GetValue(0);
  if (total_size != nullptr && total_size->IsInt()) slice.total_size = total_size->GetInt();
  const MIVOValue* const bytes = params.GetValue(1);
  if (bytes != nullptr && bytes->IsStream()) {
    long length = 0;
    const char* const begin = bytes->GetStream(length);
    slice.bytes = std::string_view(begin, static_cast<std::size_t>(length));
  }
  return slice;
}

}  // namespace mivo
