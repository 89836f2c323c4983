#include <archive.h>
#include <archive_entry.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>

#include "Platform/Linux/Clipboard/ZipFolderArchiver.h"
#include "Testing/FakeFolderArchiver.h"
#include "Testing/ScratchFolder.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using Fault = FolderArchiver::Fault;

void write(const fs::path& file, std::string_view content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

/// The files below a folder, and what is in them.
std::map<std::string, std::string> contentOf(const fs::path& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        files[entry.path().lexically_relative(folder)] = {std::istreambuf_iterator(in), {}};
    }
    return files;
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
}

template <class Value>
std::optional<Fault> faultOf(const Result<Value, Fault>& outcome) {
    return outcome ? std::nullopt : std::optional(outcome.error());
}

template <class Archiver>
class FolderArchiverContract : public testing::Test {
protected:
    FolderArchiverContract() { fs::create_directory(out); }
    ScratchFolder scratch;
    const fs::path out = scratch / "out";
    Archiver archiver;
};
using Archivers = testing::Types<FakeFolderArchiver, ZipFolderArchiver>;
TYPED_TEST_SUITE(FolderArchiverContract, Archivers);

TYPED_TEST(FolderArchiverContract, aFolderComesOutAsItWentIn) {
    const fs::path folder = this->scratch / "Übung é";
    write(folder / "a.txt", "hello");
    write(folder / "inner" / "日本", std::string(300'000, 'x') + '\0');
    write(folder / "empty", "");
    const auto archive = this->archiver.pack(folder, 1 << 20);
    ASSERT_TRUE(archive);
    ASSERT_TRUE(this->archiver.unpack(*archive, this->out / "Übung é"));
    EXPECT_EQ(contentOf(this->out / "Übung é"), contentOf(folder));
    ASSERT_TRUE(this->archiver.unpack(*archive, this->out / "other name")) << "the target names it";
    EXPECT_EQ(contentOf(this->out / "other name"), contentOf(folder));
}

TYPED_TEST(FolderArchiverContract, aFolderThatIsTooLargeOrNotThereIsRefused) {
    std::string noise(100'000, '\0');
    std::uint32_t state = 1;
    for (char& c : noise) c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    write(this->scratch / "folder" / "noise", noise);
    EXPECT_EQ(faultOf(this->archiver.pack(this->scratch / "folder", 99'999)), Fault::tooLarge);
    EXPECT_TRUE(this->archiver.pack(this->scratch / "folder", 110'000));
    EXPECT_EQ(faultOf(this->archiver.pack(this->scratch / "missing", 1000)), Fault::unreadable);
}

TYPED_TEST(FolderArchiverContract, aBrokenArchiveLeavesNothingBehind) {
    write(this->scratch / "folder" / "a", "hello");
    write(this->scratch / "folder" / "b", std::string(5000, 'b'));
    const Bytes archive = this->archiver.pack(this->scratch / "folder", 1 << 20).valueOr({});
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, archive.size() / 2}) {
        EXPECT_EQ(faultOf(this->archiver.unpack(ByteView(archive).first(size), this->out / "folder")),
                  Fault::unreadable)
            << size << " of " << archive.size();
    }
    EXPECT_THAT(namesIn(this->out), ElementsAre());
}

// What only real archives can do

/// An archive as an attacker would make it.
class HostileZip {
public:
    explicit HostileZip(const char* compression = "deflate") {
        archive_write_set_format_zip(zip_);
        archive_write_set_format_option(zip_, "zip", "compression", compression);
        archive_write_open_memory(zip_, bytes_.data(), bytes_.size(), &used_);
    }
    HostileZip& file(const std::string& name, const std::string& content, unsigned permissions = 0644) {
        return add(name, AE_IFREG, permissions, content, {});
    }
    HostileZip& link(const std::string& name, const std::string& target) {
        return add(name, AE_IFLNK, 0777, {}, target);
    }
    Bytes finish() {
        archive_write_free(zip_);
        bytes_.resize(used_);
        return std::move(bytes_);
    }

private:
    HostileZip& add(const std::string& name, unsigned type, unsigned permissions, const std::string& content,
                    const std::string& target) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, name.c_str());
        archive_entry_set_filetype(entry, type);
        archive_entry_set_perm(entry, static_cast<mode_t>(permissions));
        archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
        if (!target.empty()) archive_entry_set_symlink(entry, target.c_str());
        archive_write_header(zip_, entry);
        archive_write_data(zip_, content.data(), content.size());
        archive_entry_free(entry);
        return *this;
    }
    Bytes bytes_ = Bytes(1 << 20);
    std::size_t used_ = 0;
    archive* zip_ = archive_write_new();
};

class ZipFolderArchiverTest : public testing::Test {
protected:
    ZipFolderArchiverTest() { fs::create_directory(out); }
    Result<Done, Fault> unpack(HostileZip& zip) { return archiver.unpack(zip.finish(), out / "f"); }

    ScratchFolder scratch;
    const fs::path out = scratch / "out";
    ZipFolderArchiver archiver{{.contentBytes = 200'000, .entries = 10}};
};

TEST_F(ZipFolderArchiverTest, noEntryLeavesTheFolder) {
    write(scratch / "victim" / "a", "mine");
    const auto refused = [this](HostileZip zip) { return !unpack(zip); };
    EXPECT_TRUE(refused(HostileZip().file("f/../../victim/a", "evil")));
    EXPECT_TRUE(refused(HostileZip().file((scratch / "victim" / "a").string(), "evil")));
    EXPECT_TRUE(refused(HostileZip().link("f/out", "../../victim").file("f/out/a", "evil")));
    EXPECT_TRUE(refused(HostileZip().link("f", scratch / "victim"))) << "the folder itself is a link";
    EXPECT_THAT(namesIn(out), ElementsAre());
    EXPECT_THAT(contentOf(scratch / "victim"), ElementsAre(Pair("a", "mine")));
}

TEST_F(ZipFolderArchiverTest, onlyLinksThatStayWithinArriveAndNothingHasSpecialRights) {
    HostileZip zip;
    zip.file("f/tool", "run", 06755).file("f/inner/a", "a", 0000).link("f/inner/good", "../tool");
    zip.link("f/absolute", "/etc/passwd").link("f/up", "../..");
    zip.link("f/first", "inner").link("f/second", "first/../../x");
    zip.file("__MACOSX/f/._tool", "resources");
    ASSERT_TRUE(unpack(zip));
    EXPECT_THAT(namesIn(out), ElementsAre("f"));
    EXPECT_THAT(namesIn(out / "f"), UnorderedElementsAre("tool", "inner", "first"));
    EXPECT_THAT(namesIn(out / "f" / "inner"), UnorderedElementsAre("a", "good"));
    EXPECT_EQ(fs::status(out / "f" / "tool").permissions() & ~fs::perms::all, fs::perms::none);
    EXPECT_NE(fs::status(out / "f" / "tool").permissions() & fs::perms::owner_exec, fs::perms::none);
    EXPECT_EQ(contentOf(out / "f")["inner/a"], "a");
}

TEST_F(ZipFolderArchiverTest, aWrongChecksumIsNoticed) {
    Bytes archive = HostileZip("store").file("f/a", std::string(1000, 'a')).finish();
    const Bytes content(20, 'a');
    *std::ranges::search(archive, content).begin() = 'b';
    EXPECT_EQ(faultOf(archiver.unpack(archive, out / "f")), Fault::unreadable);
    EXPECT_THAT(namesIn(out), ElementsAre());
}

TEST_F(ZipFolderArchiverTest, whatGrowsPastTheLimitsIsRefused) {
    HostileZip bomb;
    bomb.file("f/zeros", std::string(200'001, '\0'));
    EXPECT_EQ(faultOf(unpack(bomb)), Fault::tooLarge);
    HostileZip swarm;
    for (int i = 0; i < 11; ++i) swarm.file("f/" + std::to_string(i), "");
    EXPECT_EQ(faultOf(unpack(swarm)), Fault::tooLarge);
    EXPECT_THAT(namesIn(out), ElementsAre());
    write(scratch / "zeros" / "zeros", std::string(200'001, '\0'));
    EXPECT_EQ(faultOf(archiver.pack(scratch / "zeros", 1 << 20)), Fault::tooLarge)
        << "the peer would refuse it";
}

TEST_F(ZipFolderArchiverTest, linksStayLinksAndPipesAreLeftOut) {
    write(scratch / "f" / "a", "a");
    fs::create_symlink("a", scratch / "f" / "link");
    ASSERT_EQ(::mkfifo((scratch / "f" / "pipe").c_str(), 0600), 0);
    const auto archive = archiver.pack(scratch / "f", 1 << 20);
    ASSERT_TRUE(archive);
    ASSERT_TRUE(archiver.unpack(*archive, out / "f"));
    EXPECT_THAT(namesIn(out / "f"), UnorderedElementsAre("a", "link"));
    EXPECT_EQ(fs::read_symlink(out / "f" / "link"), "a");
    EXPECT_EQ(*archiver.pack(out / "f", 1 << 20), *archive) << "the same folder, elsewhere";
}

}  // namespace
}  // namespace velmora
