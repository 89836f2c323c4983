#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velmora {

/// `text` cut into what a person takes for single characters (Unicode, extended grapheme clusters): an accent
/// stays with its letter, carriage return and line feed are one. Bad UTF-8 is repaired first.
std::vector<std::string> userPerceivedCharacters(std::string_view text);

/// Whether two texts differ in nothing but the case of their letters, of whatever script. Bad UTF-8 is
/// repaired first.
bool equalIgnoringCase(std::string_view a, std::string_view b);

}  // namespace velmora
