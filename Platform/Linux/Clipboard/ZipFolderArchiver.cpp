#include "Platform/Linux/Clipboard/ZipFolderArchiver.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace fs = std::filesystem;

namespace {

using Fault = FolderArchiver::Fault;

struct ArchiveDeleter {
    void operator()(archive* handle) const { archive_free(handle); }
};
using Archive = std::unique_ptr<archive, ArchiveDeleter>;
struct EntryDeleter {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using Entry = std::unique_ptr<archive_entry, EntryDeleter>;

/// libarchive translates names by the locale of the thread, and fails at the first "é" where that is "C".
class Utf8Names {
public:
    Utf8Names() : names_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
        if (names_) before_ = uselocale(names_);
    }
    ~Utf8Names() {
        if (!names_) return;
        uselocale(before_);
        freelocale(names_);
    }
    Utf8Names(const Utf8Names&) = delete;
    Utf8Names& operator=(const Utf8Names&) = delete;

private:
    const locale_t names_;
    locale_t before_{};
};

/// Where the archive grows, up to a length.
struct Output {
    Bytes bytes;
    const std::size_t most;
    bool isFull = false;

    static la_ssize_t write(archive*, void* self, const void* data, std::size_t size) {
        auto& output = *static_cast<Output*>(self);
        if (size > output.most - output.bytes.size()) {
            output.isFull = true;
            return -1;
        }
        const auto* first = static_cast<const std::uint8_t*>(data);
        output.bytes.insert(output.bytes.end(), first, first + size);
        return static_cast<la_ssize_t>(size);
    }
};

class Packer {
public:
    Packer(fs::path folder, std::size_t most, const FolderArchiver::Limits& limits)
        : folder_(std::move(folder)), limits_(limits), output_{.bytes = {}, .most = most} {}

    Result<Bytes, Fault> run() {
        archive_write_set_format_zip(zip_.get());
        archive_write_set_bytes_in_last_block(zip_.get(), 1);  // no padding
        const auto outcome = writeAll();
        // The end of the archive is written all the same: giving one up (archive_write_fail) leaks its
        // buffer.
        if (!outcome) return output_.isFull ? Fault::tooLarge : outcome.error();
        return std::move(output_.bytes);
    }

private:
    Result<Done, Fault> writeAll() {
        std::error_code error;
        // The folder itself may be reached through a link; what is in it is taken as it stands.
        const fs::path real = fs::canonical(folder_, error);
        if (error) return Fault::unreadable;
        if (archive_write_open(zip_.get(), &output_, nullptr, &Output::write, nullptr) != ARCHIVE_OK)
            return Fault::unreadable;
        const fs::path name = folder_.filename();
        if (auto written = writeFolder(real, name); !written) return written;
        if (archive_write_close(zip_.get()) != ARCHIVE_OK) return Fault::unreadable;
        return Done{};
    }

    /// In the order of names: a folder that is copied again gives the same bytes.
    Result<Done, Fault> writeFolder(const fs::path& folder, const fs::path& name) {
        if (auto itself = writeEntry(folder, name); !itself) return itself;
        std::error_code error;
        std::map<fs::path, bool> files;  // and whether they are folders
        for (auto file = fs::directory_iterator(folder, error); !error && file != fs::end(file);
             file.increment(error))
            files[file->path()] = fs::is_directory(file->symlink_status(error));
        if (error) return Fault::unreadable;
        for (const auto& [file, isFolder] : files) {
            auto written = isFolder ? writeFolder(file, name / file.filename())
                                    : writeEntry(file, name / file.filename());
            if (!written) return written;
        }
        return Done{};
    }

    Result<Done, Fault> writeEntry(const fs::path& file, const fs::path& name) {
        struct stat info {};
        if (::lstat(file.c_str(), &info) != 0) return Fault::unreadable;
        if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode) && !S_ISLNK(info.st_mode)) return Done{};
        content_ += S_ISREG(info.st_mode) ? static_cast<std::uint64_t>(info.st_size) : 0;
        if (++entries_ > limits_.entries || content_ > limits_.contentBytes) return Fault::tooLarge;
        const Entry entry(archive_entry_new());
        archive_entry_set_mode(entry.get(), info.st_mode);
        archive_entry_set_size(entry.get(), S_ISREG(info.st_mode) ? info.st_size : 0);
        archive_entry_set_mtime(entry.get(), info.st_mtim.tv_sec, 0);
        archive_entry_set_pathname(entry.get(), repairedUtf8(viewOf(name.string())).c_str());
        if (S_ISLNK(info.st_mode)) {
            std::error_code error;
            const fs::path target = fs::read_symlink(file, error);
            if (error) return Fault::unreadable;
            archive_entry_set_symlink(entry.get(), target.c_str());
        }
        if (archive_write_header(zip_.get(), entry.get()) < ARCHIVE_WARN) return Fault::unreadable;
        return S_ISREG(info.st_mode) ? writeContent(file, static_cast<std::uint64_t>(info.st_size)) : Done{};
    }

    /// As many bytes as the header has promised.
    Result<Done, Fault> writeContent(const fs::path& file, std::uint64_t size) {
        std::ifstream in(file, std::ios::binary);
        while (size > 0) {
            in.read(chunk_.data(),
                    static_cast<std::streamsize>(std::min<std::uint64_t>(size, chunk_.size())));
            const auto got = static_cast<std::size_t>(in.gcount());
            if (got == 0) return Fault::unreadable;
            if (archive_write_data(zip_.get(), chunk_.data(), got) != static_cast<la_ssize_t>(got))
                return Fault::unreadable;
            size -= got;
        }
        return in ? Result<Done, Fault>(Done{}) : Fault::unreadable;
    }

    const fs::path folder_;
    const FolderArchiver::Limits limits_;
    Output output_;
    std::vector<char> chunk_ = std::vector<char>(256 * 1024);
    std::uint64_t content_ = 0;
    std::size_t entries_ = 0;
    const Archive zip_{archive_write_new()};  // last: ending it writes
};

/// A name in an archive that leads to one place below the folder it is unpacked in; none if it does not.
std::optional<fs::path> safeRelative(const char* name) {
    if (!name) return std::nullopt;
    fs::path safe;
    const fs::path path(name);
    if (path.is_absolute()) return std::nullopt;
    for (const fs::path& part : path) {
        if (part == "..") return std::nullopt;
        if (part != "." && !part.empty()) safe /= part;
    }
    return safe;
}

bool isWithin(const fs::path& folder, const fs::path& path) {
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

/// Takes away the links that lead out of `folder`, which is canonical. Asked of the files as they are: what
/// several links do together is not seen in their texts.
void removeLinksOutOf(const fs::path& folder) {
    std::error_code error;
    std::vector<fs::path> leaving;
    for (auto file = fs::recursive_directory_iterator(folder, error); !error && file != fs::end(file);
         file.increment(error)) {
        if (!file->is_symlink()) continue;
        std::error_code broken;
        const fs::path text = fs::read_symlink(file->path(), broken);
        const fs::path end = fs::weakly_canonical(file->path().parent_path() / text, broken);
        if (broken || text.is_absolute() || !isWithin(folder, end)) leaving.push_back(file->path());
    }
    for (const fs::path& link : leaving) fs::remove(link, error);
}

class Unpacker {
public:
    Unpacker(ByteView bytes, const fs::path& target, const FolderArchiver::Limits& limits)
        : bytes_(bytes), target_(target), limits_(limits) {}
    ~Unpacker() {
        std::error_code ignored;
        if (!staging_.empty()) fs::remove_all(staging_, ignored);
    }
    Unpacker(const Unpacker&) = delete;
    Unpacker& operator=(const Unpacker&) = delete;

    Result<Done, Fault> run() {
        std::error_code error;
        // Canonical: nothing is unpacked through a link, and one on the way here is none of the archive's.
        const fs::path parent = fs::canonical(target_.parent_path(), error);
        if (error) return Fault::unwritable;
        std::string folder = (parent / ".unpacking-XXXXXX").string();
        if (!::mkdtemp(folder.data())) return Fault::unwritable;
        staging_ = folder;
        if (auto outcome = extractAll(); !outcome) return outcome;
        const auto top = findTop();
        if (!top) return Fault::unreadable;
        removeLinksOutOf(*top);
        fs::rename(*top, parent / target_.filename(), error);
        return error ? Result<Done, Fault>(Fault::unwritable) : Done{};
    }

private:
    Result<Done, Fault> extractAll() {
        const Archive zip(archive_read_new());
        const Archive disk(archive_write_disk_new());
        archive_read_support_format_zip(zip.get());
        archive_write_disk_set_options(disk.get(), ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                       ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                       ARCHIVE_EXTRACT_UNLINK | ARCHIVE_EXTRACT_TIME);
        if (archive_read_open_memory(zip.get(), bytes_.data(), bytes_.size()) != ARCHIVE_OK)
            return Fault::unreadable;
        while (true) {
            archive_entry* entry = nullptr;
            const int status = archive_read_next_header(zip.get(), &entry);
            if (status == ARCHIVE_EOF) break;
            if (status < ARCHIVE_WARN) return Fault::unreadable;
            if (++entries_ > limits_.entries) return Fault::tooLarge;
            if (auto outcome = extract(zip.get(), disk.get(), entry); !outcome) return outcome;
        }
        return archive_write_close(disk.get()) < ARCHIVE_WARN ? Result<Done, Fault>(Fault::unwritable)
                                                              : Done{};
    }

    Result<Done, Fault> extract(archive* zip, archive* disk, archive_entry* entry) {
        const auto name = safeRelative(archive_entry_pathname(entry));
        if (!name || archive_entry_hardlink(entry)) return Fault::unreadable;
        if (name->empty() || *name->begin() == "__MACOSX") return Done{};
        const auto type = archive_entry_filetype(entry);
        if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK) return Done{};
        const std::string place = (staging_ / *name).string();
        if (place.size() >= PATH_MAX) return Fault::unreadable;
        archive_entry_set_pathname(entry, place.c_str());
        // Ours to read and to remove whatever it says, and nothing runs with another's rights.
        archive_entry_set_perm(entry, (archive_entry_perm(entry) & 0777) | (type == AE_IFDIR ? 0700 : 0600));
        archive_entry_unset_size(entry);  // it would be given so many bytes whether they come or not
        if (archive_write_header(disk, entry) < ARCHIVE_WARN) return Fault::unwritable;
        if (type == AE_IFREG) {
            if (auto outcome = copyContent(zip, disk); !outcome) return outcome;
        }
        return archive_write_finish_entry(disk) < ARCHIVE_WARN ? Result<Done, Fault>(Fault::unwritable)
                                                               : Done{};
    }

    Result<Done, Fault> copyContent(archive* zip, archive* disk) {
        while (true) {
            const void* data = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int status = archive_read_data_block(zip, &data, &size, &offset);
            if (status == ARCHIVE_EOF) return Done{};
            if (status != ARCHIVE_OK) return Fault::unreadable;  // a wrong checksum is a warning
            content_ += size;
            if (content_ > limits_.contentBytes) return Fault::tooLarge;
            if (archive_write_data_block(disk, data, size, offset) < ARCHIVE_WARN) return Fault::unwritable;
        }
    }

    /// The one folder that came, or of several the one that is asked for.
    std::optional<fs::path> findTop() const {
        std::error_code error;
        fs::path top = staging_ / target_.filename();
        if (!fs::exists(fs::symlink_status(top, error))) {
            const auto first = fs::directory_iterator(staging_, error);
            if (error || first == fs::end(first)) return std::nullopt;
            top = first->path();
            if (std::distance(fs::directory_iterator(staging_, error), fs::directory_iterator()) != 1)
                return std::nullopt;
        }
        if (!fs::is_directory(fs::symlink_status(top, error))) return std::nullopt;
        return top;
    }

    const ByteView bytes_;
    const fs::path target_;
    const FolderArchiver::Limits limits_;
    fs::path staging_;
    std::uint64_t content_ = 0;
    std::size_t entries_ = 0;
};

}  // namespace

Result<Bytes, Fault> ZipFolderArchiver::pack(const fs::path& folder, std::size_t most) {
    const Utf8Names names;
    return Packer(folder, most, limits_).run();
}

Result<Done, Fault> ZipFolderArchiver::unpack(ByteView archive, const fs::path& target) {
    const Utf8Names names;
    return Unpacker(archive, target, limits_).run();
}

}  // namespace velmora
