#pragma once

namespace velmora {

/// Moves the process, before it has any other thread, into a network that is nothing but a loopback: the
/// host's port is fixed, and so programs run beside other hosts. Its X servers are its own too. False for who
/// may not do that (it takes root): the process then stays on the machine's own network. Ends the process if
/// the loopback does not come up.
bool enterPrivateNetwork();

}  // namespace velmora
