#include "VelmoraKit/Core/DebugLog.h"

#include <fmt/format.h>

#include <ctime>
#include <memory>
#include <utility>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

DebugLog& DebugLog::shared() {
    static DebugLog log;
    return log;
}

void DebugLog::log(std::string_view text, Source source) {
    const std::string line = printableLine(text, longestLine);
    Entry entry{std::chrono::system_clock::now(), source, line};
    std::shared_ptr<const Sink> sink;
    {
        std::lock_guard lock(lock_);
        storage_.push_back(entry);
        while (storage_.size() > maxEntries) storage_.pop_front();
        sink = sink_;
        notifyLocked(std::move(entry));
    }
    if (sink) (*sink)(source, line);
}

std::vector<DebugLog::Entry> DebugLog::entries() const {
    std::lock_guard lock(lock_);
    return {storage_.begin(), storage_.end()};
}

void DebugLog::clear() {
    std::lock_guard lock(lock_);
    storage_.clear();
    notifyLocked(std::nullopt);
}

std::string DebugLog::plainText() const {
    std::string text;
    for (const Entry& entry : entries()) {
        if (!text.empty()) text += '\n';
        text += lineOf(entry);
    }
    return text;
}

std::string DebugLog::lineOf(const Entry& entry) {
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(entry.date.time_since_epoch()).count();
    const std::time_t seconds = millis / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    return fmt::format("{:02}:{:02}:{:02}.{:03}  {}  {}", local.tm_hour, local.tm_min, local.tm_sec,
                       millis % 1000, wordFor(entry.source), entry.text);
}

std::string_view DebugLog::wordFor(Source source) {
    return source == Source::viewer ? "VIEWER" : "SERVER";
}

void DebugLog::setSink(Sink sink) {
    auto held = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    std::lock_guard lock(lock_);
    sink_ = std::move(held);
}

std::vector<DebugLog::Entry> DebugLog::setObserver(Queue* main, Observer observer) {
    auto held = main && observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
    std::lock_guard lock(lock_);
    main_ = main;
    observer_ = std::move(held);
    if (!observer_) return {};
    return {storage_.begin(), storage_.end()};
}

// Posting under the lock keeps the order in which lines were taken.
void DebugLog::notifyLocked(std::optional<Entry> entry) {
    if (!observer_) return;
    main_->post([observer = observer_, entry = std::move(entry)] { (*observer)(entry); });
}

void debugLog(std::string_view text) {
    DebugLog::shared().log(text, DebugLog::Source::viewer);
}
void hostLog(std::string_view text) {
    DebugLog::shared().log(text, DebugLog::Source::server);
}

}  // namespace velmora
