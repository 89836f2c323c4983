#include "Shared/FileNames.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdint>

namespace velmora {

std::string fileNamePart(std::string_view text) {
    constexpr std::uint32_t wanted = U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    std::string part;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t start = at;
        UChar32 character = 0;
        U8_NEXT(bytes, at, text.size(), character);
        if (character >= 0 && (U_MASK(u_charType(character)) & wanted) != 0) {
            part += text.substr(start, at - start);
        } else {
            part += '-';
        }
    }
    return part;
}

}  // namespace velmora
