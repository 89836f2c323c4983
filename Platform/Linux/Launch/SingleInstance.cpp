#include "Platform/Linux/Launch/SingleInstance.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QLocalServer>
#include <QLocalSocket>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/Linux/System/PrivateFile.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;

constexpr char request[] = "show\n";
constexpr qint64 longestLine = 500;  // of what is said over the socket
constexpr auto lookAgain = 50ms;
constexpr auto longestTalk = 2s;  // that one who says nothing may have

/// FNV-1a: the same in every build.
std::uint32_t shortNameOf(const std::string& text) {
    std::uint32_t hash = 2166136261;
    for (const char c : text) hash = (hash ^ static_cast<std::uint8_t>(c)) * 16777619;
    return hash;
}

/// Ours alone: in a folder that all may write to, somebody else may have made it first.
Status makeOwnFolder(const std::filesystem::path& folder) {
    if (auto made = makePrivateFolder(folder); !made) return made;
    struct stat info {};
    if (::lstat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::getuid() &&
        (info.st_mode & 0077) == 0)
        return Done{};
    return Failure{folder.string() + " belongs to somebody else"};
}

void complain(const std::string& words) {
    hostLog(fmt::format("⚠︎ A second start will not find this one: {}", words));
}

}  // namespace

/// The first's ear. Whoever can reach it is the user; what they say is still only looked at, not trusted.
class SingleInstance::Listener {
public:
    Listener(const std::filesystem::path& socket, std::function<std::optional<std::string>()> onStartedAgain)
        : onStartedAgain_(std::move(onStartedAgain)) {
        const auto path = QString::fromStdString(socket.string());
        QLocalServer::removeServer(path);  // nobody's: we hold the lock
        QObject::connect(&server_, &QLocalServer::newConnection, &server_, [this] { accept(); });
        if (!server_.listen(path)) complain(server_.errorString().toStdString());
    }

private:
    void accept() {
        while (QLocalSocket* const caller = server_.nextPendingConnection()) {
            QObject::connect(caller, &QLocalSocket::disconnected, caller, &QObject::deleteLater);
            QObject::connect(caller, &QLocalSocket::readyRead, caller, [this, caller] { hear(*caller); });
            QTimer::singleShot(longestTalk, caller, [caller] { caller->abort(); });
        }
    }
    void hear(QLocalSocket& caller) {
        if (caller.state() != QLocalSocket::ConnectedState) return;  // it has been answered
        if (!caller.canReadLine() && caller.bytesAvailable() < longestLine) return;
        const bool understood = caller.readLine(longestLine) == request;
        const auto answer = understood ? onStartedAgain_() : std::nullopt;
        if (answer) caller.write(QByteArray::fromStdString(*answer + '\n').left(longestLine));
        caller.disconnectFromServer();
    }

    QLocalServer server_;
    const std::function<std::optional<std::string>()> onStartedAgain_;
};

SingleInstance::Place SingleInstance::defaultPlace() {
    std::filesystem::path folder = fmt::format("/tmp/velmora-{}", ::getuid());
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime == '/')
        folder = std::filesystem::path(runtime) / "velmora";
    return {folder, fmt::format("application-{:08x}", shortNameOf(configFolder().string()))};
}

SingleInstance::SingleInstance(const Place& place, const Parameters& parameters)
    : lockFile_(place.folder / (place.name + ".lock")), socket_(place.folder / (place.name + ".socket")) {
    if (const auto made = makeOwnFolder(place.folder); !made) {
        isFirst_ = true;
        complain(made.error().text);
        return;
    }
    const auto end = std::chrono::steady_clock::now() + parameters.patience;
    // The first may be coming up, or be about to end: then we take its place.
    while (!(isFirst_ = takeLock())) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left <= 0ms || ask(left)) return;
        std::this_thread::sleep_for(lookAgain);
    }
}

SingleInstance::~SingleInstance() {
    listener_.reset();
    if (lock_ >= 0) ::close(lock_);  // the file stays: another may be waiting for it
}

bool SingleInstance::takeLock() {
    const int file = ::open(lockFile_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file >= 0 && ::flock(file, LOCK_EX | LOCK_NB) == 0) {
        lock_ = file;
        return true;
    }
    const int error = errno;
    if (file >= 0) ::close(file);
    if (error == EWOULDBLOCK) return false;
    complain(fmt::format("{}: {}", lockFile_.string(), std::system_category().message(error)));
    return true;
}

bool SingleInstance::ask(std::chrono::milliseconds limit) {
    const auto left = static_cast<int>(std::min(limit, std::chrono::milliseconds(longestTalk)).count());
    QLocalSocket first;
    first.connectToServer(QString::fromStdString(socket_.string()));
    if (!first.waitForConnected(left)) return false;
    first.write(request);
    if (!first.waitForBytesWritten(left)) return false;
    while (!first.canReadLine() && first.bytesAvailable() < longestLine) {
        if (!first.waitForReadyRead(left)) break;
    }
    const QByteArray line = first.readLine(longestLine);
    if (!line.endsWith('\n')) return false;
    answer_ = line.chopped(1).toStdString();
    return true;
}

void SingleInstance::listen(std::function<std::optional<std::string>()> onStartedAgain) {
    if (lock_ >= 0) listener_ = std::make_unique<Listener>(socket_, std::move(onStartedAgain));
}

}  // namespace velmora
