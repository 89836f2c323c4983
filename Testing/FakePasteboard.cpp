#include "Testing/FakePasteboard.h"

#include <algorithm>
#include <utility>

namespace velmora {

void FakePasteboard::replace(std::vector<PasteboardItem> items, std::vector<std::filesystem::path> files) {
    items_ = std::move(items);
    files_ = std::move(files);
    ++count_;
    main_.post(alive_.guard([this] { tellObservers(); }));
}

void FakePasteboard::copy(std::vector<PasteboardItem> items) {
    replace(std::move(items), {});
}

void FakePasteboard::copyFiles(std::vector<std::filesystem::path> files) {
    replace({{Type::files, {}}}, std::move(files));
}

void FakePasteboard::write(std::vector<PasteboardItem> items) {
    replace(std::move(items), {});
}

void FakePasteboard::writeFiles(const std::vector<std::filesystem::path>& files) {
    replace({{Type::files, {}}}, files);
}

std::string FakePasteboard::text() const {
    const auto item = std::ranges::find(items_, std::string(Type::text), &PasteboardItem::type);
    return item == items_.end() ? std::string() : textOf(item->data);
}

void FakePasteboard::answer(Queue::Block block) {
    if (isSilent) {
        waiting_.push_back(main_.after(std::chrono::seconds(2), std::move(block)));
    } else {
        main_.post(alive_.guard(std::move(block)));
    }
}

void FakePasteboard::readTypes(Types done) {
    std::vector<std::string> types;
    for (const PasteboardItem& item : items_) {
        if (!isSilent) types.push_back(item.type);
    }
    answer([done = std::move(done), types = std::move(types)]() mutable { done(std::move(types)); });
}

void FakePasteboard::read(const std::string& type, std::size_t most, Reading done) {
    const auto contents = [&]() -> Result<Bytes, Lack> {
        const auto item = std::ranges::find(items_, type, &PasteboardItem::type);
        if (item == items_.end() || isSilent) return Lack{};
        if (item->data.size() > most) return Lack{.tooLong = item->data.size()};
        return item->data;
    };
    answer([done = std::move(done), outcome = contents()]() mutable { done(std::move(outcome)); });
}

void FakePasteboard::readFiles(Files done) {
    auto files = isSilent ? std::vector<std::filesystem::path>() : files_;
    answer([done = std::move(done), files = std::move(files)]() mutable { done(std::move(files)); });
}

}  // namespace velmora
