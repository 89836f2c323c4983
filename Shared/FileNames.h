#pragma once

#include <string>
#include <string_view>

namespace velmora {

/// `text` with each character that is neither letter, mark nor number in any script replaced by a "-": safe
/// as part of a file name, and the same for the same text.
std::string fileNamePart(std::string_view text);

}  // namespace velmora
