// The whole remote-procedure-call interface in one include.
//
// The plain TCP byte server (<mivo/tcpserver.h>) and the port hand-off functions (<mivo/port_handoff.h>) stand apart
// and are included by themselves.
#ifndef MIVO_MIVO_H_
#define MIVO_MIVO_H_

#include <mivo/client.h>
#include <mivo/handler.h>
#include <mivo/params.h>
#include <mivo/server.h>
#include <mivo/value.h>

#endif  // MIVO_MIVO_H_
