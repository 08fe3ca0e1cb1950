#include "archive.h"
#include "package.h"
#include "files.h"
#include "status.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <algorithm>
#include <vector>

namespace localrelay {
namespace {

constexpr std::string_view kManifestHeader = "zovrelay-manifest 1";
constexpr const char* kManifestEntry = "manifest";
constexpr zip_uint64_t kManifestLimit = 16u << 20;

std::vector<std::string_view> Words(std::string_view line) {
    std::vector<std::string_view> words;
    size_t at = 0;
    while (at <= line.size()) {
        size_t end = line.find(' ', at);
        if (end == std::string_view::npos) end = line.size();
        words.push_back(line.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

bool ParseSize(std::string_view text, uint64_t& size) {
    if (text.empty() || text.size() > 19) return false;
    size = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        size = size * 10 + static_cast<uint64_t>(c - '0');
    }
    return size <= uint64_t(INT64_MAX);
}

// The target libzip writes a new archive to: our own exclusively created temporary, by descriptor.
// It starts empty and is never read back through this source; committing leaves the renaming to
// the caller.
struct WriteTarget {
    int fd;
    zip_error_t error;

    static zip_int64_t Callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
        auto* self = static_cast<WriteTarget*>(state);
        auto fail = [self](int code) {
            zip_error_set(&self->error, code, errno);
            return zip_int64_t(-1);
        };
        switch (command) {
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_BEGIN_WRITE, ZIP_SOURCE_COMMIT_WRITE,
                                                  ZIP_SOURCE_ROLLBACK_WRITE, ZIP_SOURCE_WRITE, ZIP_SOURCE_SEEK_WRITE,
                                                  ZIP_SOURCE_TELL_WRITE, ZIP_SOURCE_REMOVE, ZIP_SOURCE_STAT,
                                                  ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, ZIP_SOURCE_OPEN, ZIP_SOURCE_READ,
                                                  ZIP_SOURCE_CLOSE, ZIP_SOURCE_SEEK, ZIP_SOURCE_TELL,
                                                  ZIP_SOURCE_SUPPORTS, -1);
        case ZIP_SOURCE_STAT: {
            auto* stat = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &self->error);
            if (stat == nullptr) return -1;
            zip_stat_init(stat);
            stat->size = 0;
            stat->valid |= ZIP_STAT_SIZE;
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_BEGIN_WRITE:
        case ZIP_SOURCE_ROLLBACK_WRITE:
            if (::ftruncate(self->fd, 0) != 0 || ::lseek(self->fd, 0, SEEK_SET) != 0) return fail(ZIP_ER_WRITE);
            return 0;
        case ZIP_SOURCE_WRITE: {
            const ssize_t n = ::write(self->fd, data, length);
            return n < 0 ? fail(ZIP_ER_WRITE) : zip_int64_t(n);
        }
        case ZIP_SOURCE_SEEK_WRITE: {
            auto* seek = ZIP_SOURCE_GET_ARGS(zip_source_args_seek_t, data, length, &self->error);
            if (seek == nullptr) return -1;
            return ::lseek(self->fd, seek->offset, seek->whence) < 0 ? fail(ZIP_ER_SEEK) : 0;
        }
        case ZIP_SOURCE_TELL_WRITE: {
            const off_t at = ::lseek(self->fd, 0, SEEK_CUR);
            return at < 0 ? fail(ZIP_ER_TELL) : zip_int64_t(at);
        }
        case ZIP_SOURCE_ERROR: return zip_error_to_data(&self->error, data, length);
        case ZIP_SOURCE_FREE: delete self; return 0;
        case ZIP_SOURCE_READ:  // the new archive starts empty: nothing to read, nowhere to seek
        case ZIP_SOURCE_TELL:
        default: return 0;  // open, close, seek, commit and remove need nothing here
        }
    }
};

ZOVRELAY_Status ZipReadStatus(zip_file_t* file) {
    return zip_error_code_zip(zip_file_get_error(file)) == ZIP_ER_MEMORY ? kOutOfMemory : kIntegrityFailed;
}

}  // namespace

const HeldVersion* Manifest::Find(const Version& version) const {
    for (const HeldVersion& held : versions)
        if (held.version == version) return &held;
    return nullptr;
}

std::string MergedArchiveName(const Identity& identity) { return FormatIdentity(identity) + "_merged.zip"; }

std::string VersionArchiveName(const Identity& identity, const Version& version) {
    return FormatIdentity(identity) + "_" + FormatVersion(version) + ".zip";
}

std::string EntryName(const HeldVersion& held) {
    const size_t slash = held.path.rfind('/');
    return FormatVersion(held.version) + "/" + (slash == std::string::npos ? held.path : held.path.substr(slash + 1));
}

std::string FormatManifest(const Manifest& manifest) {
    std::string text(kManifestHeader);
    text += "\ncomponent " + FormatIdentity(manifest.identity) +
            (manifest.section == Section::kEngine ? " ENGINE\n" : " PATTERN\n");
    for (const HeldVersion& held : manifest.versions)
        text += "version " + FormatVersion(held.version) + " " + held.path + " " + std::to_string(held.size) + " " +
                held.sha256 + "\n";
    for (const ProductRef& product : manifest.products)
        text += "product " + FormatIdentity(product.identity) + " " + FormatVersion(product.version) + "\n";
    return text;
}

std::optional<Manifest> ParseManifest(std::string_view text) {
    if (text.empty() || text.back() != '\n') return std::nullopt;
    text.remove_suffix(1);
    Manifest manifest;
    bool header = false, component = false;
    while (true) {
        const size_t end = text.find('\n');
        const std::vector<std::string_view> words = Words(text.substr(0, end));
        if (!header) {
            if (text.substr(0, end) != kManifestHeader) return std::nullopt;
            header = true;
        } else if (!component) {
            if (words.size() != 3 || words[0] != "component" || (words[2] != "PATTERN" && words[2] != "ENGINE"))
                return std::nullopt;
            const std::optional<Identity> identity = ParseIdentity(words[1]);
            if (!identity) return std::nullopt;
            manifest.identity = *identity;
            manifest.section = words[2] == "ENGINE" ? Section::kEngine : Section::kPattern;
            component = true;
        } else if (words.size() == 5 && words[0] == "version") {
            HeldVersion held;
            const std::optional<Version> version = ParseVersion(words[1]);
            const std::optional<std::string> sha = ParseSha256(words[4]);
            if (!version || !IsPackagePath(words[2]) || !ParseSize(words[3], held.size) || !sha ||
                manifest.Find(*version) != nullptr)
                return std::nullopt;
            held.version = *version;
            held.path = std::string(words[2]);
            held.sha256 = *sha;
            manifest.versions.push_back(std::move(held));
        } else if (words.size() == 3 && words[0] == "product") {
            const std::optional<Identity> identity = ParseIdentity(words[1]);
            const std::optional<Version> version = ParseVersion(words[2]);
            if (!identity || !version) return std::nullopt;
            manifest.products.push_back(ProductRef{*identity, *version});
        } else {
            return std::nullopt;
        }
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    if (!component) return std::nullopt;
    std::sort(manifest.versions.begin(), manifest.versions.end(),
              [](const HeldVersion& a, const HeldVersion& b) { return b.version < a.version; });
    return manifest;
}

std::optional<FileIdentity> FileIdentityOf(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return std::nullopt;
    return FileIdentity{uint64_t(info.st_size), uint64_t(info.st_ino), uint64_t(info.st_dev),
                        int64_t(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
}

std::unique_ptr<MergedArchive> MergedArchive::Open(int directory, const std::string& name, bool thorough) {
    const int fd = OpenFileAt(directory, name);
    if (fd < 0) return nullptr;
    const FileIdentity file = FileIdentityOf(fd).value_or(FileIdentity{});
    int error = 0;
    zip_t* archive = zip_fdopen(fd, ZIP_RDONLY | (thorough ? ZIP_CHECKCONS : 0), &error);
    if (archive == nullptr) {
        ::close(fd);  // zip_fdopen takes the descriptor only when it succeeds
        return nullptr;
    }
    std::unique_ptr<zip_t, decltype(&zip_discard)> owner(archive, &zip_discard);

    const zip_int64_t index = zip_name_locate(archive, kManifestEntry, 0);
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (index < 0 || zip_stat_index(archive, zip_uint64_t(index), 0, &stat) != 0 || !(stat.valid & ZIP_STAT_SIZE) ||
        stat.size > kManifestLimit)
        return nullptr;
    std::string text(stat.size, '\0');
    zip_file_t* entry = zip_fopen_index(archive, zip_uint64_t(index), 0);
    if (entry == nullptr) return nullptr;
    const zip_int64_t got = zip_fread(entry, text.data(), text.size());
    // Reading to the end makes libzip check the entry's CRC.
    char extra;
    const bool whole = got == zip_int64_t(text.size()) && zip_fread(entry, &extra, 1) == 0;
    zip_fclose(entry);
    if (!whole) return nullptr;
    std::optional<Manifest> manifest = ParseManifest(text);
    if (!manifest) return nullptr;
    return std::unique_ptr<MergedArchive>(new MergedArchive(owner.release(), std::move(*manifest), file));
}

MergedArchive::~MergedArchive() { zip_discard(archive_); }

ZOVRELAY_Status MergedArchive::Extract(const HeldVersion& held, ChunkSink& sink) const {
    const zip_int64_t index = zip_name_locate(archive_, EntryName(held).c_str(), 0);
    if (index < 0) return kIntegrityFailed;
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive_, zip_uint64_t(index), 0, &stat) != 0 || stat.size != held.size)
        return kIntegrityFailed;
    zip_file_t* file = zip_fopen_index(archive_, zip_uint64_t(index), 0);
    if (file == nullptr) return kIntegrityFailed;
    std::unique_ptr<zip_file_t, decltype(&zip_fclose)> closer(file, &zip_fclose);

    CheckingSink checking(held.size);
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        const zip_int64_t got = zip_fread(file, buffer.data(), buffer.size());
        if (got < 0) return ZipReadStatus(file);
        if (got == 0) break;
        if (!checking.Write(buffer.data(), size_t(got))) return kIntegrityFailed;
        if (!sink.Write(buffer.data(), size_t(got))) return sink.stopStatus;
    }
    return checking.Check(held.sha256);
}

ZOVRELAY_Status MergedArchive::Verify(const HeldVersion& held) const {
    struct Discard : ChunkSink {
        bool Write(const char*, size_t) override { return true; }
    } discard;
    return Extract(held, discard);
}

ZOVRELAY_Status WriteMergedArchive(int directory, int temporary, const std::string& temporaryName,
                                   const Manifest& manifest, const std::map<Version, std::string>& files,
                                   const MergedArchive* previous) {
    // libzip writes through our descriptor: it never opens, creates or renames a path itself.
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* target = zip_source_function_create(&WriteTarget::Callback, new WriteTarget{temporary, {}}, &error);
    if (target == nullptr) return kOutOfMemory;
    zip_t* archive = zip_open_from_source(target, ZIP_TRUNCATE, &error);
    if (archive == nullptr) {
        zip_source_free(target);
        return zip_error_code_zip(&error) == ZIP_ER_MEMORY ? kOutOfMemory : kIoError;
    }

    const std::string text = FormatManifest(manifest);  // libzip reads it at zip_close
    auto add = [archive](const std::string& name, zip_source_t* source) {
        if (source == nullptr) return false;
        const zip_int64_t index = zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8);
        if (index < 0) {
            zip_source_free(source);
            return false;
        }
        // Packages are compressed already; storing them keeps every entry a plain byte range.
        return zip_set_file_compression(archive, zip_uint64_t(index), ZIP_CM_STORE, 0) == 0;
    };
    bool added = add(kManifestEntry, zip_source_buffer(archive, text.data(), text.size(), 0));
    for (const HeldVersion& held : manifest.versions) {
        if (!added) break;
        zip_source_t* source = nullptr;
        const auto file = files.find(held.version);
        if (file != files.end()) {
            const int fd = OpenFileAt(directory, file->second);
            FILE* stream = fd >= 0 ? ::fdopen(fd, "rb") : nullptr;
            if (stream == nullptr && fd >= 0) ::close(fd);
            if (stream != nullptr) source = zip_source_filep(archive, stream, 0, -1);
            if (stream != nullptr && source == nullptr) ::fclose(stream);
        } else if (previous != nullptr) {
            const zip_int64_t index = zip_name_locate(previous->handle(), EntryName(held).c_str(), 0);
            if (index >= 0) source = zip_source_zip(archive, previous->handle(), zip_uint64_t(index), 0, 0, -1);
        }
        added = add(EntryName(held), source);
    }
    if (!added || zip_close(archive) != 0) {
        const int code = zip_error_code_system(zip_get_error(archive));
        zip_discard(archive);
        return code != 0 ? FileStatus(code) : kIoError;
    }

    const std::unique_ptr<MergedArchive> written = MergedArchive::Open(directory, temporaryName, true);
    if (written == nullptr || FormatManifest(written->manifest()) != text) return kIntegrityFailed;
    for (const HeldVersion& held : manifest.versions) {
        const ZOVRELAY_Status status = written->Verify(held);
        if (status <= 0) return status;
    }
    return kSuccess;
}

}  // namespace localrelay
