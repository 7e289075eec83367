// Are client and server of one version? The first question on every connection.
#ifndef MIVO_CALLS_VERSION_CHECK_H_
#define MIVO_CALLS_VERSION_CHECK_H_

#include <string>

#include "transport/envelope.h"

namespace mivo {

// The server's answer, complete. Quick, whatever the peer has sent: it is given by whoever reads, so that a newcomer
// waits for nobody's handler.
std::string AnswerVersionCheck(const Envelope& request);

}  // namespace mivo

#endif  // MIVO_CALLS_VERSION_CHECK_H_
