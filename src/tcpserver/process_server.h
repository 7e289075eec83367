// The plain TCP server that every process has, on libuv's default loop.
#ifndef MIVO_TCPSERVER_PROCESS_SERVER_H_
#define MIVO_TCPSERVER_PROCESS_SERVER_H_

class CTcpServer;

namespace mivo {

// Made by the first call and destroyed at exit. Not when the library is loaded: that would open the default loop's
// descriptors in every program that links it, and share its poll set with the children they fork.
CTcpServer& ProcessServer();

}  // namespace mivo

#endif  // MIVO_TCPSERVER_PROCESS_SERVER_H_
