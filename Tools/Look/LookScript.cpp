#include "Tools/Look/LookScript.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <utility>

#include "Agent/KeyNames.h"
#include "Viewer/Session/InputGestures.h"

namespace velmora {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const auto start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

std::vector<std::string_view> wordsOf(std::string_view text) {
    std::vector<std::string_view> words;
    for (text = trimmed(text); !text.empty(); text = trimmed(text)) {
        const auto end = std::min(text.find_first_of(blanks), text.size());
        words.push_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    return words;
}

std::optional<double> numberOf(std::string_view word) {
    double value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

/// All of `words` as numbers, if there are exactly `count` of them.
std::optional<std::vector<double>> numbersOf(const std::vector<std::string_view>& words, std::size_t count) {
    if (words.size() != count) return std::nullopt;
    std::vector<double> numbers;
    for (const auto word : words) {
        const auto number = numberOf(word);
        if (!number) return std::nullopt;
        numbers.push_back(*number);
    }
    return numbers;
}

std::optional<InputGestures::Button> buttonOf(std::string_view word) {
    if (word == "left") return InputGestures::Button::left;
    if (word == "right") return InputGestures::Button::right;
    if (word == "middle") return InputGestures::Button::middle;
    return std::nullopt;
}

std::optional<std::string> unescaped(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            plain += text[i];
            continue;
        }
        if (++i == text.size()) return std::nullopt;
        switch (text[i]) {
            case 'n':
                plain += '\n';
                break;
            case 't':
                plain += '\t';
                break;
            case '\\':
                plain += '\\';
                break;
            default:
                return std::nullopt;
        }
    }
    return plain;
}

using What = decltype(LookStep::what);

constexpr LookStep::Seconds dragInterval{0.016};

std::optional<What> pointerStep(std::string_view verb, std::vector<std::string_view> words) {
    if (verb == "click") {
        auto button = InputGestures::Button::left;
        int count = 1;
        if (words.size() == 4) {
            const auto number = numberOf(words.back());
            if (!number || *number < 1 || *number > 9) return std::nullopt;
            count = static_cast<int>(*number);
            words.pop_back();
        }
        if (words.size() == 3) {
            const auto named = buttonOf(words.back());
            if (!named) return std::nullopt;
            button = *named;
            words.pop_back();
        }
        const auto at = numbersOf(words, 2);
        if (!at) return std::nullopt;
        return LookStep::Input{[at = *at, button, count](PixelSize stream) {
            return InputGestures::click(InputGestures::pointAt(at[0], at[1], stream.width, stream.height),
                                        button, count);
        }};
    }
    const auto at = numbersOf(words, verb == "move" ? 2 : 4);
    if (!at) return std::nullopt;
    const auto events = [at = *at, verb = std::string(verb)](PixelSize stream) {
        const auto point = InputGestures::pointAt(at[0], at[1], stream.width, stream.height);
        if (verb == "move") return InputGestures::moveTo(point);
        if (verb == "scroll") return InputGestures::scroll(point, at[2], at[3]);
        return InputGestures::drag(point, InputGestures::pointAt(at[2], at[3], stream.width, stream.height));
    };
    return LookStep::Input{events, verb == "drag" ? dragInterval : LookStep::Seconds{}};
}

std::optional<What> keyStep(std::string_view rest) {
    const auto combo = KeyNames::parse(rest);
    if (!combo) return std::nullopt;
    return LookStep::Input{[combo = *combo](PixelSize) {
        return InputGestures::press(combo.keyCode, combo.characters, combo.flags);
    }};
}

/// A span of time, or `fallback` where none is written and that will do.
std::optional<LookStep::Seconds> spanOf(const std::vector<std::string_view>& words,
                                        std::optional<LookStep::Seconds> fallback) {
    if (words.empty()) return fallback;
    const auto numbers = numbersOf(words, 1);
    if (!numbers || numbers->front() < 0 || numbers->front() > 86400) return std::nullopt;
    return LookStep::Seconds(numbers->front());
}

std::optional<What> stepOf(std::string_view verb, std::string_view rest) {
    const auto words = wordsOf(rest);
    if (verb == "move" || verb == "click" || verb == "drag" || verb == "scroll")
        return pointerStep(verb, words);
    if (verb == "key") return keyStep(rest);
    if (verb == "type") {
        auto text = unescaped(rest);
        if (!text || text->empty()) return std::nullopt;
        return LookStep::typing(*std::move(text));
    }
    if (verb == "wait") {
        if (const auto span = spanOf(words, std::nullopt)) return LookStep::Wait{*span};
    } else if (verb == "settle") {
        if (const auto limit = spanOf(words, LookStep::Settle{}.limit)) return LookStep::Settle{*limit};
    } else if (verb == "change") {
        if (const auto limit = spanOf(words, LookStep::Change{}.limit)) return LookStep::Change{*limit};
    } else if (verb == "png" && !rest.empty()) {
        return LookStep::SavePng{std::string(rest)};
    } else if (verb == "stats-csv" && !rest.empty()) {
        return LookStep::RecordStats{std::string(rest)};
    }
    return std::nullopt;
}

}  // namespace

LookStep::Input LookStep::typing(std::string text) {
    return {[text = std::move(text)](PixelSize) { return InputGestures::type(text); }};
}

Result<std::optional<LookStep>> LookStep::parse(std::string_view line) {
    const std::string_view text = trimmed(line);
    if (text.empty() || text.front() == '#') return std::optional<LookStep>();
    const auto verbEnd = std::min(text.find_first_of(blanks), text.size());
    auto what = stepOf(text.substr(0, verbEnd), trimmed(text.substr(verbEnd)));
    if (!what) return Failure{fmt::format("cannot make sense of “{}”", text)};
    return std::optional(LookStep{std::string(text), *std::move(what)});
}

}  // namespace velmora
