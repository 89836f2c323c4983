#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace velmora {

/// What the application has to tell a person at once.
struct Alert {
    enum class Style { informational, warning, critical };

    std::string title;
    std::string text;  // may have several paragraphs, with a blank line between two
    Style style = Style::warning;
    std::vector<std::string> buttons{"OK"};  // the first is the default; Escape takes the last

    bool operator==(const Alert&) const = default;
};

/// Shows alerts, above the application's other windows, in the order in which they come and one at a time.
/// Lives on the main queue, and does not block it.
class Alerts {
public:
    virtual ~Alerts() = default;
    /// `chosen` is called once, with the index of a button, unless the program ends first.
    virtual void show(Alert alert, std::function<void(std::size_t button)> chosen = {}) = 0;
};

}  // namespace velmora
