#include "Viewer/Session/StatsLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "Viewer/Session/ViewerStats.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

class StatsLogTest : public testing::Test {
protected:
    StatsLogTest() {
        std::string pattern = (fs::temp_directory_path() / "velmora-statslog-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
    }
    ~StatsLogTest() override { fs::remove_all(folder); }

    static std::string contentsOf(const fs::path& path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    fs::path folder;
    const std::chrono::system_clock::time_point now = std::chrono::system_clock::from_time_t(1'700'000'000);
};

TEST_F(StatsLogTest, rowsFollowTheHeaderAtOnce) {
    StatsLog log(folder / "a" / "b", "My Mac (2)", now);
    log.append("1,2,3");
    const auto file = fs::directory_iterator(folder / "a" / "b")->path();
    EXPECT_EQ(contentsOf(file), std::string(ViewerStats::csvHeader) + "\n1,2,3\n");
    const std::string name = file.filename().string();
    EXPECT_EQ(name.substr(0, 7), "viewer-");
    EXPECT_EQ(name.substr(22), "-My-Mac--2-.csv");
    log.close();
    log.append("4,5,6");
    EXPECT_EQ(contentsOf(file), std::string(ViewerStats::csvHeader) + "\n1,2,3\n");
}

TEST_F(StatsLogTest, aLogThatCannotBeMadeIsSilent) {
    std::ofstream(folder / "file") << "x";
    StatsLog log(folder / "file" / "logs", "Mac", now);
    EXPECT_FALSE(log.isOpen());
    log.append("1,2,3");
    log.close();
}

TEST_F(StatsLogTest, aLogOfTheSameSecondIsLeftAlone) {
    StatsLog first(folder, "Mac", now);
    first.append("row");
    StatsLog second(folder, "Mac", now);
    EXPECT_FALSE(second.isOpen());
    EXPECT_EQ(contentsOf(fs::directory_iterator(folder)->path()),
              std::string(ViewerStats::csvHeader) + "\nrow\n");
}

}  // namespace
}  // namespace velmora
