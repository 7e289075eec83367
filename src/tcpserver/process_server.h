// The one plain TCP server that belongs to the process and not to anybody in it, on libuv's default loop.
#ifndef MIVO_TCPSERVER_PROCESS_SERVER_H_
#define MIVO_TCPSERVER_PROCESS_SERVER_H_

class CTcpServer;

namespace mivo {

// Made by the first call and destroyed at exit. Nothing in the library calls this or listens with it, and the symbol is
// not exported: a process has the server only where a program that holds the library's objects asks for it. It is not
// made when the library is loaded: that would open the default loop's descriptors in every program that links it, and
// share its poll set with the children they fork.
CTcpServer& ProcessServer();

}  // namespace mivo

#endif  // MIVO_TCPSERVER_PROCESS_SERVER_H_
