// Every name and text that both sides of a connection agree on, in one place.
#ifndef MIVO_TRANSPORT_BUILTIN_KEYS_H_
#define MIVO_TRANSPORT_BUILTIN_KEYS_H_

namespace mivo {

inline constexpr char kVersionBanner[] = "MIVO Version: 1.1.0.12";

// The envelope of a message.
inline constexpr char kNameKey[] = "s_c_sw_name";          // string: the method called, or kRetval
inline constexpr char kThreadIdKey[] = "s_c_sw_threadid";  // int: the call key
inline constexpr char kDataKey[] = "s_c_sw_data";          // stream: the encoded arguments
inline constexpr char kSemIdKey[] = "s_c_sw_semid";        // string: the waiting call's token
inline constexpr char kRetval[] = "retval";                // the name that marks a reply

// Methods that travel.
inline constexpr char kVersionMethod[] = "s_c_version";           // first message of a client: are we of one version?
inline constexpr char kCloseServerMethod[] = "s_c_close_server";  // answered true; closes nothing
inline constexpr char kSliceMethod[] = "s_c_req_body";            // one slice of a large message
inline constexpr char kSliceHeaderMethod[] = "s_c_req_header";    // the same receiver under a second name

// Keys inside messages.
inline constexpr char kVersionKey[] = "VERSION";          // string: the banner
inline constexpr char kLargeDataKey[] = "s_c_largedata";  // true in a slice; the name inside a large result

// Handlers that an object calls of its own accord; these names are never sent.
inline constexpr char kConnectNotice[] = "s_c_connect";
inline constexpr char kClosedNotice[] = "s_c_closed";
inline constexpr char kBuiltinClosedNotice[] = "s_c_buildin_closed";
inline constexpr char kCreatePortNotice[] = "s_c_createport";
inline constexpr char kLogSink[] = "s_c_log";
inline constexpr char kUnknownMethod[] = "s_c_unknown";  // of a client, in place of handlers that it lacks

// In the sets that a client makes when a call failed; never sent.
inline constexpr char kErrorCodeKey[] = "errorCode";
inline constexpr int kErrorNotConnected = -1000;
inline constexpr int kErrorNoReply = -1001;

}  // namespace mivo

#endif  // MIVO_TRANSPORT_BUILTIN_KEYS_H_
