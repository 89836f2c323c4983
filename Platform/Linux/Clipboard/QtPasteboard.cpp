#include "Platform/Linux/Clipboard/QtPasteboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <algorithm>
#include <utility>

#include "Platform/Linux/Clipboard/ClipboardForms.h"
#include "Platform/Linux/Clipboard/PictureForms.h"

namespace velmora {

namespace {

using namespace ClipboardForms;

/// The names that plain text in UTF-8 goes by, the best first.
const std::vector<std::string> textTargets{Pasteboard::Type::text, "UTF8_STRING", "text/plain"};

const QMimeData* offered() {
    return QGuiApplication::clipboard()->mimeData();
}

QString nameOf(const std::string& type) {
    return QString::fromStdString(type);
}

std::vector<std::string> offeredTypes() {
    std::vector<std::string> types;
    if (const QMimeData* const data = offered()) {
        for (const QString& format : data->formats()) types.push_back(format.toStdString());
    }
    return types;
}

}  // namespace

QtPasteboard::QtPasteboard(Queue& main) : main_(main) {
    QClipboard* const clipboard = QGuiApplication::clipboard();
    watch_ = QObject::connect(clipboard, &QClipboard::dataChanged, clipboard, [this] { handleChange(); });
}

QtPasteboard::~QtPasteboard() {
    QObject::disconnect(watch_);
    if (offered_) offer(nullptr);
}

void QtPasteboard::offer(std::unique_ptr<QMimeData> data) {
    QClipboard* const clipboard = QGuiApplication::clipboard();
    const QPointer<QMimeData> before = std::exchange(offered_, data.get());
    // Another program's content, which came later, stays.
    if (data || clipboard->ownsClipboard()) clipboard->setMimeData(data.release());
    delete before.data();  // Qt 6.4 forgets to do so on Wayland
}

void QtPasteboard::handleChange() {
    // Our own are counted when they are written; the desktop tells of them too, as late as it likes.
    if (QGuiApplication::clipboard()->ownsClipboard()) return;
    ++count_;
    tellObservers();
}

Result<Bytes, Pasteboard::Lack> QtPasteboard::readFirst(const std::vector<std::string>& targets,
                                                        std::size_t most) {
    const QMimeData* const data = offered();
    for (const std::string& target : targets) {
        if (!data || !data->hasFormat(nameOf(target))) continue;
        const QByteArray bytes = data->data(nameOf(target));
        const auto size = static_cast<std::size_t>(bytes.size());
        if (size > most) return Lack{.tooLong = size};
        if (size == 0) return Lack{};  // how Qt says that there was no answer
        Bytes found(bytes.begin(), bytes.end());
        if (target == Type::png || !contains(pictures, target)) return found;
        auto png = pngOf(found);
        return png ? Result<Bytes, Lack>(*std::move(png)) : Lack{};
    }
    return Lack{};
}

void QtPasteboard::readTypes(Types done) {
    main_.post(alive_.guard([done = std::move(done)]() mutable {
        std::vector<std::string> types = offeredTypes();
        addIfOffered(types, Type::files, {copiedFiles});
        addIfOffered(types, Type::png, pictures);
        addIfOffered(types, Type::text, textTargets);
        constexpr std::size_t longestHint = 256;
        if (contains(types, passwordHint) && isSecret(readFirst({passwordHint}, longestHint)))
            types.push_back(Type::concealed);
        done(std::move(types));
    }));
}

void QtPasteboard::read(const std::string& type, std::size_t most, Reading done) {
    auto targets = type == Type::text ? textTargets : type == Type::png ? pictures : std::vector{type};
    main_.post(alive_.guard([targets = std::move(targets), most, done = std::move(done)]() mutable {
        done(readFirst(targets, most));
    }));
}

void QtPasteboard::readFiles(Files done) {
    main_.post(alive_.guard([done = std::move(done)]() mutable {
        constexpr std::size_t longestList = 4 << 20;
        const auto list = readFirst({Type::files, copiedFiles}, longestList);
        done(list ? localFiles(textOf(*list)) : std::vector<std::filesystem::path>());
    }));
}

void QtPasteboard::write(std::vector<PasteboardItem> items) {
    ++count_;
    main_.post(alive_.guard([this] { tellObservers(); }));
    if (items.empty()) {
        QGuiApplication::clipboard()->clear();
        return offer(nullptr);
    }
    auto data = std::make_unique<QMimeData>();
    for (const PasteboardItem& item : items) {
        const QByteArray bytes(reinterpret_cast<const char*>(item.data.data()),
                               static_cast<qsizetype>(item.data.size()));
        data->setData(nameOf(item.type), bytes);
        if (item.type == Type::text) data->setData(QStringLiteral("text/plain"), bytes);
    }
    offer(std::move(data));
}

void QtPasteboard::writeFiles(const std::vector<std::filesystem::path>& files) {
    write(ofFiles(files));
}

}  // namespace velmora
