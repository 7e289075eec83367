#ifndef MIVO_SRC_VALUES_DECODER_H_
#define MIVO_SRC_VALUES_DECODER_H_

#include <cstdint>
#include <string_view>

#include "values/wire_tags.h"

namespace mivo {

// One decoded scalar. Only the member that `tag` names is meaningful.
struct Scalar {
  WireTag tag = WireTag::kInt;
  bool boolean = false;
  std::int32_t integer = 0;
  double real = 0;
  std::string_view bytes;  // strings and streams; views the decoder's input
};

// Receives what Decode finds, in the order of the bytes. Views handed over live as long as the decoded input.
//
// A value is reported before its position stamp is tested: with Decode returning false the last report may be the value
// of a record that was cut or whose stamp is wrong.
class DecodeSink {
 public:
  virtual ~DecodeSink() = default;

  virtual void OnPositional(const Scalar& value) = 0;

  // A pair, at the top level or inside a list map, names `key`: whatever the top level held under that key is gone, but
  // an entry that existed stays, without a value until OnKeyed gives it one. If OnKeyed comes, it comes next.
  virtual void OnKey(std::string_view key) = 0;
  virtual void OnKeyed(std::string_view key, const Scalar& value) = 0;

  // A list or list map whose end is never reported was cut by a fault and counts as absent. They do not nest.
  virtual void OnListBegin() = 0;
  virtual void OnListElement(const Scalar& value) = 0;
  virtual void OnListEnd() = 0;

  virtual void OnListMapBegin() = 0;
  virtual void OnListMapEntry(std::string_view key, const Scalar& value) = 0;  // the latest report of a key wins
  virtual void OnListMapEnd() = 0;
};

// Reads one whole encoding, from its first byte on: records carry their own absolute offsets, so a part of an encoding
// does not decode. Returns true when the end was reached without a fault, false at the first fault; what was reported
// until then stands.
//
// Total: any bytes of any length are safe. Reads nothing outside `bytes`, allocates nothing, does not recurse, and
// takes time linear in the bytes, whatever lengths and counts they announce. An exception of the sink's passes through.
bool Decode(std::string_view bytes, DecodeSink& sink);

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_DECODER_H_
