#pragma once

#include <string>

#include "Rendezvous/SeenHosts.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Fills `seen` from the file. A file that is not there is no failure; one that is not ours is left alone and
/// is one, so that a slip in an option never destroys somebody's file. Lines that make no sense are told in
/// the log and left out.
Status readSeenFile(const std::string& path, SeenHosts& seen, SeenHosts::Time now);

/// Replaces the file by `text` in one step, readable by its owner alone. Any thread.
Status writeSeenFile(const std::string& path, const std::string& text);

}  // namespace velmora
