#include "Shared/NameOrder.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/stringpiece.h>

#include <utility>

namespace velmora {
namespace {

/// Without a language set, ICU's locale is the POSIX one, which sorts by bytes; then the order common to most
/// languages serves people better.
icu::Locale languageOfUser() {
    const icu::Locale chosen;
    return std::string_view(chosen.getVariant()) == "POSIX" ? icu::Locale::getRoot() : chosen;
}

}  // namespace

struct NameOrder::Rules {
    std::unique_ptr<icu::Collator> collator;  // none: the system has no rules for any language
};

NameOrder::NameOrder() : rules_(std::make_unique<Rules>()) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(languageOfUser(), status));
    if (U_FAILURE(status)) return;
    collator->setStrength(icu::Collator::SECONDARY);  // accents count, case does not
    rules_->collator = std::move(collator);
}

NameOrder::~NameOrder() = default;

bool NameOrder::operator()(std::string_view left, std::string_view right) const {
    if (!rules_->collator) return left < right;
    const auto pieceOf = [](std::string_view text) {
        return icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size()));
    };
    UErrorCode status = U_ZERO_ERROR;
    return rules_->collator->compareUTF8(pieceOf(left), pieceOf(right), status) == UCOL_LESS;
}

}  // namespace velmora
