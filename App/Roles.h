#pragma once

#include "VelmoraKit/Signaling/SignalingUrl.h"

namespace velmora {

/// The roles of the program. Each builds its object graph with the services of this system, runs until its
/// end, and returns the exit status.

/// Shares this machine's screen until SIGTERM or SIGINT.
int runApplication(int argc, char** argv, const SignalingUrl& rendezvous);

/// The Model Context Protocol server on standard input and output, until the input ends. `argv` begins behind
/// "mcp".
int runAgentBridge(int argc, char** argv, const SignalingUrl& rendezvous);

}  // namespace velmora
