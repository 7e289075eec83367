// A client driven by hand that makes large calls.
#ifndef MIVO_TESTS_SUPPORT_LARGE_PEER_H_
#define MIVO_TESTS_SUPPORT_LARGE_PEER_H_

#include "support/raw_client.h"
#include "support/slices.h"
#include "support/wire.h"

#include <string>
#include <string_view>
#include <vector>

namespace mivo_test {

// The requests in which a whole message travels.
inline std::vector<std::string> SliceRequests(int key, const std::string& whole, std::size_t slice_size) {
  std::vector<std::string> requests;
  for (std::size_t at = 0; at < whole.size(); at += slice_size) {
    const auto bytes = std::string_view(whole).substr(at, slice_size);
    requests.push_back(Request({"s_c_req_body", key, SliceSet(key, static_cast<int>(whole.size()), bytes)}));
  }
  return requests;
}

// Takes the slices of a result, answering each, until the answer to the last slice of the request comes; the bytes of
// the result.
inline std::string TakeResult(RawPeer* peer) {
  std::string whole;
  while (const auto frame = peer->ReadFrame()) {
    if (TextOf(*frame, "s_c_sw_name") == "retval") break;
    whole += ReadSliceRequest(*frame).bytes;
    if (!peer->SendFrame(AsClient(*frame))) break;
  }
  return whole;
}

// A large call from its beginning to its end; the bytes of the result.
inline std::string LargeCall(RawPeer* peer, int key, const std::string& whole, std::size_t slice_size = 32768) {
  const std::vector<std::string> requests = SliceRequests(key, whole, slice_size);
  for (std::size_t i = 0; i + 1 < requests.size(); ++i) {
    if (!peer->Exchange(requests[i])) return "";
  }
  return peer->SendFrame(requests.back()) ? TakeResult(peer) : "";
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_LARGE_PEER_H_
