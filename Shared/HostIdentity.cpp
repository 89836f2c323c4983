#include "Shared/HostIdentity.h"

#include <fmt/format.h>
#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <random>
#include <utility>
#include <vector>

#include "Shared/Preferences.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

constexpr std::size_t passwordLength = 6;

/// What a person counts as one character each.
std::vector<icu::UnicodeString> charactersOf(std::string_view text) {
    const auto whole = icu::UnicodeString::fromUTF8({text.data(), static_cast<std::int32_t>(text.size())});
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::BreakIterator> breaks(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    std::vector<icu::UnicodeString> characters;
    if (U_FAILURE(status)) return characters;
    breaks->setText(whole);
    for (auto start = breaks->first(), end = breaks->next(); end != icu::BreakIterator::DONE;
         start = std::exchange(end, breaks->next())) {
        characters.emplace_back(whole, start, end - start);
    }
    return characters;
}

bool isNumber(const icu::UnicodeString& character) {
    return u_getIntPropertyValue(character.char32At(0), UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

}  // namespace

HostIdentity::HostIdentity(PreferenceStore& preferences, Keychain& keychain, Queue& main, Queue& worker)
    : HostIdentity(preferences, keychain, main, worker, Parameters()) {}

HostIdentity::HostIdentity(PreferenceStore& preferences, Keychain& keychain, Queue& main, Queue& worker,
                           Parameters parameters)
    : preferences_(preferences),
      keychain_(keychain),
      main_(main),
      worker_(worker),
      parameters_(std::move(parameters)) {
    if (auto stored = preferences_.string(PreferenceKeys::hostId)) {
        id_ = *std::move(stored);
    } else {
        id_ = std::to_string(100'000'000 + parameters_.random(900'000'000));
        preferences_.set(PreferenceKeys::hostId, id_);
    }
    load();
}

void HostIdentity::load() {
    worker_.post([this, &keychain = keychain_, &main = main_, weak = liveness_.weak()] {
        auto stored = keychain.lookUp(Keychain::hostService, Keychain::hostPasswordAccount);
        main.post([this, weak, stored = std::move(stored)] {
            if (!weak.expired()) finishLoading(stored);
        });
    });
}

void HostIdentity::finishLoading(const Result<std::string, SecretStore::Lack>& stored) {
    if (!stored && stored.error() == SecretStore::Lack::unavailable) {
        retryTimer_ = main_.after(parameters_.retryInterval, [this] { load(); });
        return moveTo(State::unavailable);
    }
    if (stored && charactersOf(*stored).size() == passwordLength) {
        password_ = *stored;
    } else {
        adopt(randomPassword());
    }
    moveTo(State::ready);
}

void HostIdentity::moveTo(State next) {
    if (next == state_) return;
    if (next == State::unavailable) {
        hostLog(
            "⚠︎ The credential store is locked or does not answer; viewers can't connect until it does");
    } else if (state_ == State::unavailable) {
        hostLog("The credential store answers again");
    }
    state_ = next;
    observers_.notify();
}

void HostIdentity::newPassword() {
    if (!isReady()) return;
    adopt(randomPassword());
    observers_.notify();
}

void HostIdentity::setPassword(const std::string& password) {
    if (!isReady()) return;
    const auto characters = charactersOf(password);
    if (characters.size() != passwordLength) return;
    for (const auto& character : characters) {
        if (!isNumber(character)) return;
    }
    adopt(password);
    observers_.notify();
}

/// A save that fails leaves the password in force for this run.
void HostIdentity::adopt(std::string password) {
    password_ = std::move(password);
    worker_.post([&keychain = keychain_, value = password_] {
        keychain.save(value, Keychain::hostService, Keychain::hostPasswordAccount,
                      Keychain::hostPasswordLabel);
    });
}

std::string HostIdentity::randomPassword() const {
    return fmt::format("{:06}", parameters_.random(1'000'000));
}

std::string HostIdentity::grouped(std::string_view text) {
    std::string grouped;
    std::size_t count = 0;
    for (const auto& character : charactersOf(text)) {
        if (count > 0 && count % 3 == 0) grouped += ' ';
        character.toUTF8String(grouped);
        ++count;
    }
    return grouped;
}

std::uint32_t HostIdentity::secureRandom(std::uint32_t bound) {
    std::random_device source;  // the kernel's or the processor's generator
    return std::uniform_int_distribution<std::uint32_t>(0, bound - 1)(source);
}

}  // namespace velmora
