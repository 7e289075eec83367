// The endpoint that the application has named.
#ifndef MIVO_TRANSPORT_ENDPOINT_OF_H_
#define MIVO_TRANSPORT_ENDPOINT_OF_H_

#include <mivo/connections.h>

#include "transport/endpoint.h"

namespace mivo {

inline Endpoint EndpointOf(AddressKind kind, const char* where, const char* port) {
  const std::string place = where == nullptr ? "" : where;
  const std::string number = port == nullptr ? "" : port;
  switch (kind) {
    case AddressKind::kPath:
      return {Endpoint::kLocal, place, "", true};
    case AddressKind::kTcp4:
      return {Endpoint::kTcp4, number, place};
    case AddressKind::kTcp6:
      return {Endpoint::kTcp6, number, place};
    case AddressKind::kName:
      break;
  }
  return {Endpoint::kLocal, place, ""};
}

}  // namespace mivo

#endif  // MIVO_TRANSPORT_ENDPOINT_OF_H_
