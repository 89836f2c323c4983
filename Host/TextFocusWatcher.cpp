#include "Host/TextFocusWatcher.h"

#include <utility>

namespace velmora {

TextFocusWatcher::TextFocusWatcher(TextFocusSource& source, Queue& main)
    : TextFocusWatcher(source, main, Parameters()) {}

TextFocusWatcher::TextFocusWatcher(TextFocusSource& source, Queue& main, Parameters parameters)
    : source_(source), main_(main), parameters_(parameters) {}

bool TextFocusWatcher::takesText(const std::optional<FocusedElement>& focused) {
    if (!focused) return false;
    return focused->role != FocusedElement::Role::other || focused->isEditable;
}

void TextFocusWatcher::start(Changed onChange) {
    assertOn(main_);
    stop();
    onChange_ = std::move(onChange);
    timer_ = main_.after(parameters_.firstReport, [this] { report(); });
    watch_ = source_.watch([this](const auto& focused) { handle(focused); });
}

void TextFocusWatcher::stop() {
    watch_.reset();
    timer_.reset();
    last_.reset();
    current_ = false;
}

void TextFocusWatcher::handle(const std::optional<FocusedElement>& focused) {
    current_ = takesText(focused);
    if (!last_) {
        timer_.reset();
        report();
    } else if (!timer_ && current_ != *last_) {
        timer_ = main_.after(parameters_.rest, [this] { report(); });
    }
}

void TextFocusWatcher::report() {
    if (std::exchange(last_, current_) == current_) return;
    if (const auto notify = onChange_) notify(current_);
}

}  // namespace velmora
