#pragma once

#include <string>

namespace velmora {

/// A new random UUID (RFC 9562, version 4) in capitals.
std::string newUuid();

}  // namespace velmora
