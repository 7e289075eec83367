// Connecting and listening with an answer that says why not, and who is connected: beside IClient and IServer.
//
// The objects are those of CreateClient and CreateServer; on another implementation of the interface nothing is done,
// and the result is -ENOTSUP or -1.
#ifndef MIVO_CONNECTIONS_H_
#define MIVO_CONNECTIONS_H_

#include <mivo/export.h>

class IClient;
class IServer;

namespace mivo {

enum class AddressKind : int {
  kName = 0,  // a local socket of the library's own, as for InitMIVOClient
  kPath = 1,  // a local socket anywhere, of at most 107 bytes
  kTcp4 = 2,
  kTcp6 = 3,
};

// Connects and checks the server's version, in `timeout_ms` (below 1: as long as it takes). `where` is a name, path or
// numeric address; `port` is looked at for TCP. Blocks until then; a call that waits for its answer is looked at every
// 100 ms, first half a second after connecting, so the check may take that much longer. The handlers stay registered,
// whatever comes of it, and no turn is taken.
//
// 0, or a negative errno: -ECONNREFUSED and -ENOENT if nobody listens there, -ETIMEDOUT, -EPROTO for a server of
// another version, -ECONNRESET for one that has left meanwhile, -EISCONN if it is connected, -ECANCELED if it was
// closed meanwhile, -EDEADLK in a handler or notice of its own, -EPERM in a child of fork, or what else the system
// says.
MIVO_EXPORT int Connect(IClient& client, AddressKind kind, const char* where, const char* port, int timeout_ms);

// Listens; serving begins with run(). 0 or a negative errno, as Connect. The socket file of a path has the mode that
// the process's umask gives it and stays the process's user's. Where a server answers already that is -EADDRINUSE; what
// one that has died has left is replaced. Names are taken from whoever has them, as StartMIVOServer does.
MIVO_EXPORT int Listen(IServer& server, AddressKind kind, const char* where, const char* port);

// Nobody can connect from now on, and a socket file is removed; connections stay. Takes effect as soon as the serving
// thread gets to it.
MIVO_EXPORT void StopListening(IServer& server);

// How many requests were read and are not answered yet, as far as they are not with somebody who has taken their reply
// (ReplyLater).
MIVO_EXPORT int RequestsUnderWay(IServer& server);

// The user id of a connected client's process when it connected over a local socket; -1 for others.
MIVO_EXPORT int UserOf(IServer& server, int client_id);

// Nothing is printed for this object any more, nor given to a sink, until log() is called: to be called before it
// connects or listens. std::cout stays in step with printf, which log() puts an end to.
MIVO_EXPORT void BeQuiet(IClient& client);
MIVO_EXPORT void BeQuiet(IServer& server);

// As DestroyClient, without the tenth of a second that a close() takes at least, and never later than it returns: not
// in a handler or notice of the client's own.
MIVO_EXPORT void DestroyAtOnce(IClient* client);

}  // namespace mivo

#endif  // MIVO_CONNECTIONS_H_
