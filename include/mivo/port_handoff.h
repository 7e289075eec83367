// Handing a port number to the parent process through a FIFO in /tmp.
//
// The child that serves creates the FIFO or finds it made by its parent, and writes; the parent reads. The functions
// stand alone: no operation of a client or server calls them.
#ifndef MIVO_PORT_HANDOFF_H_
#define MIVO_PORT_HANDOFF_H_

#include <mivo/export.h>

#include <string>

MIVO_EXPORT std::string CreatePortPipe();
MIVO_EXPORT std::string ReadPortPipe();
MIVO_EXPORT bool WritePortPipe(int port);

#endif  // MIVO_PORT_HANDOFF_H_
