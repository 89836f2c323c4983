#pragma once

#include "Tools/View/ViewOptions.h"
#include "VelmoraKit/Signaling/SignalingUrl.h"

namespace velmora {

/// Shows the windows until the last one is closed or a signal comes; gives the exit status. On the process's
/// first thread, before any other.
int runView(const ViewOptions& options, const SignalingUrl& rendezvous);

}  // namespace velmora
