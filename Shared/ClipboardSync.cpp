#include "Shared/ClipboardSync.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

using Kind = ClipboardContent::Kind;
using Type = Pasteboard::Type;

std::string describe(const ClipboardContent& content) {
    return content.kind == Kind::text ? fmt::format("text, {} bytes", content.data.size())
                                      : fmt::format("image, {} KB", content.data.size() / 1024);
}

std::string describe(const ClipboardFiles& files) {
    std::size_t size = 0;
    std::vector<std::string> names;
    for (const auto& item : files.items) {
        size += item.data.size();
        if (names.size() < 3) names.push_back(item.name);
    }
    return fmt::format("{} file(s), {} KB: {}", files.items.size(), size / 1024, fmt::join(names, ", "));
}

bool offers(const std::vector<std::string>& types, const char* type) {
    return std::ranges::find(types, type) != types.end();
}

}  // namespace

struct ClipboardSync::Inbound {
    struct Files {
        Content content;
        std::int64_t changeCount = 0;  // of the pasteboard that waits for them
    };
    void put(Files files) {
        const std::lock_guard lock(mutex_);
        newest_ = std::move(files);
    }
    Files take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(newest_, {});
    }

private:
    std::mutex mutex_;  // guards what follows
    Files newest_;
};

ClipboardSync::ClipboardSync(std::string label, std::function<void(const std::string&)> log,
                             Services services, Parameters parameters)
    : label_(std::move(label)),
      log_(std::move(log)),
      services_(std::move(services)),
      parameters_(parameters),
      packing_(std::make_shared<const ClipboardPacking>(services_.archiver, services_.inbox)),
      inbound_(std::make_shared<Inbound>()) {}

template <class F>
auto ClipboardSync::ifCurrent(F f) {
    return running_.guard([this, count = lastChangeCount_, f = std::move(f)](auto&&... args) mutable {
        if (lastChangeCount_ == count) f(std::forward<decltype(args)>(args)...);
    });
}

void ClipboardSync::start(Send send) {
    assertOn(services_.main);
    stop();
    send_ = std::move(send);
    lastChangeCount_ = services_.pasteboard.changeCount();
    observation_ = services_.pasteboard.observe([this] { pasteboardChanged(); });
}

void ClipboardSync::stop() {
    assertOn(services_.main);
    running_.renew();
    observation_.reset();
    timer_.reset();
    send_ = nullptr;
}

// MARK: from here to the peer

void ClipboardSync::pasteboardChanged() {
    if (timer_) return;
    const auto now = services_.main.now();
    if (!lastCheck_ || now - *lastCheck_ >= parameters_.pause) return check();
    timer_ = services_.main.after(*lastCheck_ + parameters_.pause - now, [this] { check(); });
}

void ClipboardSync::check() {
    assertOn(services_.main);
    const std::int64_t count = services_.pasteboard.changeCount();
    if (count == lastChangeCount_) return;
    lastChangeCount_ = count;  // at once: whatever follows, this change is handled once
    lastCheck_ = services_.main.now();
    services_.pasteboard.readTypes(ifCurrent([this](auto types) { look(std::move(types)); }));
}

void ClipboardSync::look(std::vector<std::string> types) {
    if (offers(types, Type::concealed) || offers(types, Type::transient)) return;
    if (!offers(types, Type::files)) return readPicture(std::move(types));
    services_.pasteboard.readFiles(ifCurrent([this, types](auto files) {
        // Addresses of pages come in the same type.
        files.empty() ? readPicture(types) : pack(std::move(files));
    }));
}

void ClipboardSync::readPicture(std::vector<std::string> types) {
    if (!offers(types, Type::png)) return readText(types);
    services_.pasteboard.read(Type::png, parameters_.mostRead, ifCurrent([this, types](auto outcome) {
                                  const bool isThere = outcome || outcome.error().tooLong > 0;
                                  isThere ? take(Kind::png, std::move(outcome)) : readText(types);
                              }));
}

void ClipboardSync::readText(const std::vector<std::string>& types) {
    services_.pasteboard.read(Type::text, parameters_.mostRead,
                              ifCurrent([this, types](Result<Bytes, Pasteboard::Lack> outcome) {
                                  if (!outcome && outcome.error().tooLong == 0) return;
                                  log_(fmt::format("Clipboard types: {}", fmt::join(types, ", ")));
                                  if (outcome) outcome = bytesOf(repairedUtf8(*outcome));
                                  take(Kind::text, std::move(outcome));
                              }));
}

void ClipboardSync::take(Kind kind, Result<Bytes, Pasteboard::Lack> outcome) {
    if (!outcome) return refuse(outcome.error().tooLong);
    auto content = std::make_shared<const ClipboardContent>(ClipboardContent{kind, *std::move(outcome)});
    if (lastSent_ && *lastSent_ == *content) return;  // an echo, or the same thing copied again
    lastSent_ = content;
    if (content->data.size() > ClipboardContent::maxBytes) return refuse(content->data.size());
    deliver(content, describe(*content));
}

void ClipboardSync::refuse(std::size_t size) {
    log_(fmt::format("Clipboard not sent to {}: {} MB is over the 8 MB limit", label_, size >> 20));
}

void ClipboardSync::pack(std::vector<std::filesystem::path> files) {
    struct Packed {
        Content content;
        std::string words;  // its description, or why there is none
    };
    auto deliverPacked = ifCurrent([this](Packed packed) {
        if (services_.pasteboard.changeCount() != lastChangeCount_) return;  // a newer copy wins
        if (!packed.content) return log_(fmt::format("Clipboard not sent to {}: {}", label_, packed.words));
        if (lastSent_ && *lastSent_ == *packed.content) return;
        lastSent_ = packed.content;
        deliver(packed.content, packed.words);
    });
    services_.worker.post([packing = packing_, files = std::move(files), &main = services_.main,
                           wanted = running_.weak(), deliverPacked = std::move(deliverPacked)]() mutable {
        if (wanted.expired()) return;
        Packed packed;
        if (const auto result = packing->packFiles(files)) {
            packed.content =
                std::make_shared<const ClipboardContent>(ClipboardContent{Kind::files, result->encode()});
            packed.words = describe(*result);
        } else {
            packed.words = result.error().message;
        }
        main.post([deliverPacked = std::move(deliverPacked), packed = std::move(packed)]() mutable {
            deliverPacked(std::move(packed));
        });
    });
}

void ClipboardSync::deliver(Content content, const std::string& description) {
    log_(fmt::format("Clipboard to {}: {}", label_, description));
    if (const auto send = send_) send(*content);
}

// MARK: from the peer

std::function<void(const Bytes& payload)> ClipboardSync::receiver() {
    return [this, &main = services_.main, alive = alive_.weak()](const Bytes& payload) {
        auto content = ClipboardContent::decode(payload);
        if (!content) return;
        main.post([this, alive, content = *std::move(content)]() mutable {
            if (!alive.expired()) receive(std::move(content));
        });
    };
}

void ClipboardSync::receive(ClipboardContent content) {
    assertOn(services_.main);
    const auto held = std::make_shared<const ClipboardContent>(std::move(content));
    switch (held->kind) {
        case Kind::text:
            services_.pasteboard.write({{Type::text, bytesOf(repairedUtf8(held->data))}});
            return settle(held, describe(*held));
        case Kind::png:
            services_.pasteboard.write({{Type::png, held->data}});
            return settle(held, describe(*held));
        case Kind::files:
            return receiveFiles(held);
    }
}

void ClipboardSync::receiveFiles(Content content) {
    struct Saved {
        Inbound::Files inbound;
        std::vector<std::filesystem::path> files;
        std::string description;
    };
    services_.pasteboard.clear();
    inbound_->put({.content = std::move(content), .changeCount = services_.pasteboard.changeCount()});
    auto publish = alive_.guard([this](Saved saved) {
        // Something newer has come from there, or been copied here.
        if (services_.pasteboard.changeCount() != saved.inbound.changeCount) return;
        if (saved.files.empty())
            return log_(fmt::format("⚠︎ Clipboard from {}: couldn't save the files", label_));
        services_.pasteboard.writeFiles(saved.files);
        settle(saved.inbound.content, saved.description);
    });
    services_.worker.post([packing = packing_, inbound = inbound_, &main = services_.main,
                           publish = std::move(publish)]() mutable {
        Saved saved{.inbound = inbound->take(), .files = {}, .description = {}};
        if (!saved.inbound.content) return;  // an earlier block has saved them
        if (const auto files = ClipboardFiles::decode(saved.inbound.content->data)) {
            saved.files = packing->saveFiles(*files).value_or(std::vector<std::filesystem::path>());
            saved.description = describe(*files);
        }
        main.post([publish = std::move(publish), saved = std::move(saved)]() mutable {
            publish(std::move(saved));
        });
    });
}

void ClipboardSync::settle(Content content, const std::string& description) {
    lastChangeCount_ = services_.pasteboard.changeCount();
    lastSent_ = std::move(content);
    log_(fmt::format("Clipboard from {}: {}", label_, description));
}

}  // namespace velmora
