#include "Shared/Characters.h"

#include <unicode/brkiter.h>
#include <unicode/unistr.h>

#include <memory>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

std::vector<std::string> userPerceivedCharacters(std::string_view text) {
    const auto whole = icu::UnicodeString::fromUTF8(repairedUtf8(viewOf(text)));
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::BreakIterator> breaks(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    std::vector<std::string> characters;
    if (U_FAILURE(status)) return characters;  // ICU without its data: nothing works then
    breaks->setText(whole);
    std::int32_t start = breaks->first();
    for (std::int32_t end = breaks->next(); end != icu::BreakIterator::DONE; end = breaks->next()) {
        std::string character;
        whole.tempSubStringBetween(start, end).toUTF8String(character);
        characters.push_back(std::move(character));
        start = end;
    }
    return characters;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    const auto first = icu::UnicodeString::fromUTF8(repairedUtf8(viewOf(a)));
    return first.caseCompare(icu::UnicodeString::fromUTF8(repairedUtf8(viewOf(b))), U_FOLD_CASE_DEFAULT) == 0;
}

}  // namespace velmora
