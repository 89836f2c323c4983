#include "Shared/ClipboardPacking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Testing/FakeFolderArchiver.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Wire/ClipboardContent.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class ClipboardPackingTest : public testing::Test {
protected:
    fs::path write(const std::string& name, std::string_view content) {
        const fs::path file = scratch / name;
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }
    fs::path sized(const std::string& name, std::uintmax_t size) {
        const fs::path file = write(name, "");
        fs::resize_file(file, size);
        return file;
    }
    static std::string read(const fs::path& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator(in), {}};
    }
    std::string errorOf(const std::vector<fs::path>& files) {
        const auto packed = packing.packFiles(files);
        return packed ? "" : packed.error().message;
    }
    std::vector<std::string> savedNames(const ClipboardFiles& files) {
        std::vector<std::string> names;
        const auto saved = packing.saveFiles(files);
        for (const fs::path& file : saved.value_or(std::vector<fs::path>())) {
            EXPECT_EQ(file.parent_path().parent_path(), inbox);
            names.push_back(file.filename());
        }
        return names;
    }

    ScratchFolder scratch;
    const fs::path inbox = scratch / "caches" / "Clipboard";
    FakeFolderArchiver archiver;
    ClipboardPacking packing{archiver, inbox};
};

TEST_F(ClipboardPackingTest, filesAndFoldersComeOutAsTheyWentIn) {
    const auto file = write("a é.txt", "hello"), inner = write("folder/sub/b", "inside");
    const auto packed = packing.packFiles({file, scratch / "folder/"});
    ASSERT_TRUE(packed);
    ASSERT_EQ(packed->items.size(), 2u);
    EXPECT_EQ(packed->items[0], (ClipboardFiles::Item{.name = "a é.txt", .data = bytesOf("hello")}));
    EXPECT_EQ(packed->items[1].name, "folder");
    EXPECT_TRUE(packed->items[1].isFolder);
    const auto saved = packing.saveFiles(*packed);
    ASSERT_TRUE(saved && saved->size() == 2);
    EXPECT_EQ(read((*saved)[0]), "hello");
    EXPECT_EQ(read((*saved)[1] / "sub" / "b"), "inside");
}

TEST_F(ClipboardPackingTest, theLimitIsInclusiveAndOfAllTogether) {
    const auto limit = ClipboardContent::maxFileBytes;
    const std::string words = "files are over the 60 MB limit";
    const auto most = packing.packFiles({sized("most", limit)});
    EXPECT_TRUE(most && most->items[0].data.size() == limit);
    EXPECT_EQ(errorOf({sized("more", limit + 1)}), words);
    EXPECT_EQ(errorOf({write("one", "1"), scratch / "most"}), words);
    sized("folder/content", limit);
    EXPECT_EQ(errorOf({scratch / "folder"}), words) << "known only once it is packed";
}

TEST_F(ClipboardPackingTest, theFirstOneThatCannotBeReadFailsTheWhole) {
    const auto good = write("good", "1");
    ASSERT_EQ(::mkfifo((scratch / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(errorOf({good, scratch / "missing"}), "can't read missing");
    EXPECT_EQ(errorOf({scratch / "pipe"}), "can't read pipe") << "and nobody waits for it";
    EXPECT_EQ(errorOf({}), "no readable files");
}

TEST_F(ClipboardPackingTest, aPeersNamesLeadNowhereElse) {
    const auto victim = write("caches/evil", "mine");
    EXPECT_THAT(savedNames({{{.name = "../../evil"},
                             {.name = ".."},
                             {.name = "."},
                             {.name = ""},
                             {.name = "/"},
                             {.name = std::string("nul\0byte", 8)},
                             {.name = std::string(300, 'n')},
                             {.name = "/etc/passwd"},
                             {.name = "sub/last/"}}}),
                ElementsAre("evil", "passwd", "last"));
    EXPECT_EQ(read(victim), "mine");
}

TEST_F(ClipboardPackingTest, theSecondOfANameAndABrokenFolderAreLeftOut) {
    EXPECT_THAT(savedNames({{{.name = "a", .data = {'1'}},
                             {.name = "broken", .isFolder = true, .data = {'?'}},
                             {.name = "x/a", .data = {'2'}}}}),
                ElementsAre("a"));
    const fs::path folder = fs::directory_iterator(inbox)->path();
    EXPECT_EQ(read(folder / "a"), "1");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 1);
}

TEST_F(ClipboardPackingTest, anotherClipboardReplacesTheFilesOfTheOneBefore) {
    const auto first = packing.saveFiles({{{.name = "first"}}});
    EXPECT_THAT(savedNames({{{.name = "second"}}}), ElementsAre("second"));
    EXPECT_FALSE(fs::exists(first->front()));
    EXPECT_EQ(std::distance(fs::directory_iterator(inbox), {}), 1);
    EXPECT_EQ(fs::status(inbox).permissions(), fs::perms::owner_all) << "nobody else reads along";
}

TEST_F(ClipboardPackingTest, whereNoFolderCanBeMadeNothingIsSaved) {
    write("caches", "a file where the folder should be");
    EXPECT_FALSE(packing.saveFiles({{{.name = "a"}}}));
}

}  // namespace
}  // namespace velmora
