#include "largedata/slice_sender.h"

#include <mivo/params.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "largedata/slice.h"
#include "largedata/slice_size.h"
#include "transport/frame.h"

namespace mivo {

namespace {

// A slice has a total and a key, and its request an envelope; they take less than this.
constexpr std::size_t kLongestSlice = kLongestPayload - 512;

}  // namespace

std::size_t SliceSizeOfTransfer() {
  return std::min(static_cast<std::size_t>(SliceSizeToUse()), kLongestSlice);
}

bool SendInSlices(const std::string& whole, int key, const std::function<bool(MIVOParams* slice)>& send) {
  // The total travels as a signed 32-bit number: a longer message ends the program rather than wrap.
  if (whole.size() > kLongestWhole) std::abort();
  const int total_size = static_cast<int>(whole.size());
  const std::size_t slice_size = SliceSizeOfTransfer();

  std::string_view rest = whole;
  bool is_last = false;
  while (!is_last) {
    is_last = rest.size() <= slice_size;
    const std::string_view bytes = rest.substr(0, slice_size);
    rest.remove_prefix(bytes.size());
    MIVOParams slice;
    WriteSlice({key, total_size, bytes}, &slice);
    if (!send(&slice)) return false;
  }
  return true;
}

}  // namespace mivo
