// Handing a port number to the parent process through a FIFO in /tmp.
//
// The child that serves creates the FIFO or finds it made by its parent, and writes; the parent reads. The functions
// stand alone: no operation of a client or server calls them.
//
// The path: "/tmp/echo.pipe." + the parent's process id as the process that calls CreatePortPipe first sees it. It is
// kept for the life of the process, and no other call sets it. Two processes meet on one FIFO in one of two ways:
// - the parent calls CreatePortPipe, then forks: the child inherits the path and only writes. Calling CreatePortPipe in
//   the child as well would replace the FIFO under the parent's hands.
// - the child, started with exec, calls CreatePortPipe itself: the path ends in the id of the process that started it,
//   which opens "/tmp/echo.pipe." + its own id by itself.
//
// The directory is everybody's. What is not a FIFO of this process's own (effective) user is neither read nor written,
// nor a symbolic link followed, so that nobody else can hand over a port or have a file overwritten. Parent and child
// therefore run as the same user. A umask that keeps the mode at 0700 keeps others from reading the number away.
//
// Threads: any. A child of fork may use them, whatever the threads of its parent were doing.
// Blocking: ReadPortPipe waits for a writer and WritePortPipe for a reader, both without limit.
// Errors: told by the result; no exception.
// Lifetime: nobody removes the FIFO when it is done with.
#ifndef MIVO_PORT_HANDOFF_H_
#define MIVO_PORT_HANDOFF_H_

#include <mivo/export.h>

#include <string>

// Makes the FIFO (mode 0777 less the umask), in place of any file of that name that may be removed, prints
// "create pipe: <path>" and returns the path. When it cannot be made, as where another user has put something under the
// name first, it prints "create pipe error: <path>: <reason>" and returns an empty text: do not read or write then.
MIVO_EXPORT std::string CreatePortPipe();

// Reads the port number as text, prints "server port: <text>" and returns it; empty, without a line, when there is no
// FIFO of one's own to open. Ends at 5 characters or when the writer's end is closed, which a writer in WritePortPipe
// leaves open until its process ends: a port below 10000 is read only then.
// The text is kept for the life of the process and a further call appends to it: read once.
MIVO_EXPORT std::string ReadPortPipe();

// Writes the number as text, and prints "write port to pipe: <port>" twice. Without a FIFO of one's own it prints "open
// pipe error: <path>" and returns false. True does not tell that anybody has read. The descriptor stays open until the
// process ends or executes another program.
MIVO_EXPORT bool WritePortPipe(int port);

#endif  // MIVO_PORT_HANDOFF_H_
