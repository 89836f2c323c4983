#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Pasteboard.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A pasteboard in memory, and the other programs that use it. Answers come with the next turn of the main
/// queue; of a silent owner after two seconds, empty.
class FakePasteboard final : public Pasteboard {
public:
    explicit FakePasteboard(Queue& main) : main_(main) {}

    /// Another program copies.
    void copy(std::vector<PasteboardItem> items);
    void copyText(const std::string& text) { copy({{Type::text, bytesOf(text)}}); }
    void copyFiles(std::vector<std::filesystem::path> files);
    /// What another program would paste.
    const std::vector<PasteboardItem>& items() const { return items_; }
    std::string text() const;
    const std::vector<std::filesystem::path>& files() const { return files_; }
    bool isSilent = false;

    std::int64_t changeCount() override { return count_; }
    void readTypes(Types done) override;
    void read(const std::string& type, std::size_t most, Reading done) override;
    void readFiles(Files done) override;
    void write(std::vector<PasteboardItem> items) override;
    void writeFiles(const std::vector<std::filesystem::path>& files) override;

private:
    void replace(std::vector<PasteboardItem> items, std::vector<std::filesystem::path> files);
    void answer(Queue::Block block);

    Queue& main_;
    std::int64_t count_ = 7;
    std::vector<PasteboardItem> items_;
    std::vector<std::filesystem::path> files_;
    std::vector<TimerToken> waiting_;
    Liveness alive_;
};

}  // namespace velmora
