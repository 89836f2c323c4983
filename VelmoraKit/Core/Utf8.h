#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// The bytes as UTF-8 text that is sure to be valid: each longest run that begins like a character but does
/// not end as one becomes a U+FFFD, as browsers do it.
std::string repairedUtf8(ByteView bytes);

/// The text for a log or a terminal, whoever wrote it: valid UTF-8, a space for each control character, for
/// each separator of lines and for each change of the direction of writing, so that it stays one line,
/// commands nothing and turns no neighbour round, and no more than about `longest` bytes of it.
std::string printableLine(std::string_view text, std::size_t longest);

}  // namespace velmora
