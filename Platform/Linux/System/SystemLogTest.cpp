#include "Platform/Linux/System/SystemLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>

#include "Testing/ScratchFolder.h"

namespace velmora {
namespace {

using testing::HasSubstr;

/// A daemon's socket.
class Listener {
public:
    explicit Listener(const std::filesystem::path& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~Listener() { ::close(socket_); }
    std::string received() {
        std::array<char, 65536> data;
        const auto size = ::recv(socket_, data.data(), data.size(), MSG_DONTWAIT);
        return size < 0 ? "" : std::string(data.data(), static_cast<std::size_t>(size));
    }

private:
    const int socket_;
};

class SystemLogTest : public testing::Test {
protected:
    std::string fileContent() const {
        std::ifstream file(places.file);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    ScratchFolder folder;
    const SystemLog::Places places{.journalSocket = folder / "journal",
                                   .syslogSocket = folder / "log",
                                   .file = folder / "state/velmora.log"};
};

TEST_F(SystemLogTest, theJournalComesFirstAndTakesLineFeeds) {
    Listener journal(places.journalSocket), syslog(places.syslogSocket);
    SystemLog::makeSink(places)(DebugLog::Source::server, "two\nlines");
    const auto datagram = journal.received();
    EXPECT_THAT(datagram, HasSubstr("SYSLOG_IDENTIFIER=velmora\n"));
    EXPECT_THAT(datagram, HasSubstr(std::string("MESSAGE\n\x10\0\0\0\0\0\0\0SERVER two\nlines\n", 33)));
    EXPECT_EQ(syslog.received(), "");
    EXPECT_FALSE(std::filesystem::exists(places.file));
}

TEST_F(SystemLogTest, thenSyslog) {
    Listener syslog(places.syslogSocket);
    SystemLog::makeSink(places)(DebugLog::Source::viewer, "text");
    const auto datagram = syslog.received();
    EXPECT_THAT(datagram, testing::StartsWith("<14>"));
    EXPECT_THAT(datagram, testing::EndsWith("]: VIEWER text"));
}

TEST_F(SystemLogTest, andAFileOtherwiseWhichDoesNotGrowForEver) {
    const auto sink = SystemLog::makeSink(places);
    sink(DebugLog::Source::viewer, "⚠︎ first");
    sink(DebugLog::Source::server, "second");
    EXPECT_THAT(fileContent(), testing::MatchesRegex(".* VIEWER ⚠︎ first\n.* SERVER second\n"));
    std::filesystem::resize_file(places.file, SystemLog::maxFileSize + 1);
    sink(DebugLog::Source::server, "third");
    EXPECT_LT(fileContent().size(), 100u);
    EXPECT_TRUE(std::filesystem::exists(places.file.string() + ".old"));
}

TEST_F(SystemLogTest, aDaemonThatGoesAwayHoldsNothingUp) {
    auto syslog = std::make_unique<Listener>(places.syslogSocket);
    const auto sink = SystemLog::makeSink(places);
    for (int i = 0; i < 2000; ++i) sink(DebugLog::Source::server, "nobody reads this");
    syslog.reset();
    sink(DebugLog::Source::server, "nobody listens");
}

}  // namespace
}  // namespace velmora
