#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Platform/Linux/System/PreferencesDocument.h"
#include "VelmoraKit/Core/Bytes.h"

// Any text as the preferences file: what is understood survives being written and read again, and changing
// one key changes nothing else.

namespace velmora {
namespace {

void check(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

bool isSame(const PreferencesDocument::Values& a, const PreferencesDocument::Values& b) {
    if (a.size() != b.size()) return false;
    for (auto x = a.begin(), y = b.begin(); x != a.end(); ++x, ++y) {
        const auto* one = std::get_if<double>(&x->second);
        const auto* other = std::get_if<double>(&y->second);
        const bool bothNan = one && other && std::isnan(*one) && std::isnan(*other);
        if (x->first != y->first || (x->second != y->second && !bothNan)) return false;
    }
    return true;
}

void run(std::string_view text) {
    const auto document = PreferencesDocument::parse(text);
    if (!document) return;
    const auto values = document->values();
    const auto again = PreferencesDocument::parse(document->text());
    check(again.has_value(), "what is written can be read");
    check(isSame(again->values(), values), "what is written is what was read");
    check(again->text() == document->text(), "writing settles at once");

    auto changed = *document;
    for (const auto& [key, value] : values) changed.set(key, value);
    check(isSame(changed.values(), values), "setting a key to its value changes nothing");
    const std::string key = "a key of our own";
    changed.set(key, Bytes{1, 2, 3});
    check(changed.values().contains(key), "a key that was set is there");
    changed.remove(key);
    for (const auto& [name, value] : values) changed.remove(name);
    check(changed.values().empty(), "removed keys are gone");
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
