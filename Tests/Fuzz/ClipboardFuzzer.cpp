// What a peer or another program puts into the clipboard. The first byte chooses: a payload of files, the
// archive of a folder, a list of addresses, or (the rest) a whole message.

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "Platform/Linux/Clipboard/UriList.h"
#include "Platform/Linux/Clipboard/ZipFolderArchiver.h"
#include "Shared/ClipboardPacking.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Wire/ClipboardContent.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

void check(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

/// A folder in which everything has to stay, beside one that nobody may touch.
struct Place {
    ScratchFolder scratch;
    const fs::path inside = scratch / "inside", outside = scratch / "outside";

    void checkUntouched() const {
        check(std::distance(fs::directory_iterator(scratch.path()), {}) <= 2 && fs::is_empty(outside),
              "nothing is written outside");
    }
};

Place& place() {
    static Place place;
    fs::remove_all(place.inside);
    fs::create_directories(place.inside);
    fs::create_directories(place.outside);
    return place;
}

void runFiles(ByteView data) {
    const auto files = ClipboardFiles::decode(data);
    if (!files) return;
    check(*ClipboardFiles::decode(files->encode()) == *files, "files survive their own encoding");
    Place& all = place();
    ZipFolderArchiver archiver({.contentBytes = 1 << 20, .entries = 50});
    const auto saved = ClipboardPacking(archiver, all.inside / "inbox").saveFiles(*files);
    for (const fs::path& file : saved.value_or(std::vector<fs::path>()))
        check(file.parent_path().parent_path() == all.inside / "inbox" && fs::exists(file),
              "files are saved");
    all.checkUntouched();
}

void runArchive(ByteView data) {
    Place& all = place();
    ZipFolderArchiver archiver({.contentBytes = 1 << 20, .entries = 50});
    const bool isUnpacked = archiver.unpack(data, all.inside / "folder").ok();
    check(fs::exists(all.inside / "folder") == isUnpacked, "a folder is there or it is not");
    check(std::distance(fs::directory_iterator(all.inside), {}) == (isUnpacked ? 1 : 0), "nothing else is");
    if (isUnpacked) {
        for (const auto& entry : fs::recursive_directory_iterator(all.inside)) {
            if (!entry.is_symlink()) continue;
            const auto end = fs::weakly_canonical(entry.path()).string();
            check(end.starts_with(fs::canonical(all.inside / "folder").string()), "links stay within");
        }
    }
    all.checkUntouched();
}

void run(std::uint8_t choice, ByteView data) {
    switch (choice) {
        case 0:
            return runFiles(data);
        case 1:
            return runArchive(data);
        case 2:
            for (const fs::path& file : localFiles(textOf(data))) {
                check(file.is_absolute(), "files are absolute");
                check(localFiles(fileUri(file)) == std::vector{file}, "an address leads back to its file");
            }
            return;
        default:
            if (const auto content = ClipboardContent::decode(data))
                check(content->encode() == Bytes(data.begin(), data.end()), "a message survives");
    }
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 0) velmora::run(data[0], {data + 1, size - 1});
    return 0;
}
