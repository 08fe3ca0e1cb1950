#include "archive/archive.h"
#include "transfer/package.h"
#include "base/files.h"
#include "base/status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include <algorithm>
#include <array>
#include <vector>

namespace localrelay {
namespace {

constexpr std::string_view kManifestHeader = "zovrelay-manifest 1";
constexpr zip_uint64_t kManifestLimit = 16u << 20;

// The words of a manifest line, without an allocation per line: no line has more than five, so
// a longer one keeps only its first six (and never matches).
struct Words {
    explicit Words(std::string_view line) {
        for (size_t at = 0; at <= line.size() && count < words.size();) {
            size_t end = line.find(' ', at);
            if (end == std::string_view::npos) end = line.size();
            words[count++] = line.substr(at, end - at);
            at = end + 1;
        }
    }
    size_t size() const { return count; }
    std::string_view operator[](size_t i) const { return words[i]; }

    std::array<std::string_view, 6> words;
    size_t count = 0;
};

bool ParseSize(std::string_view text, uint64_t& size) {
    if (text.empty() || text.size() > 19) return false;
    size = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        size = size * 10 + static_cast<uint64_t>(c - '0');
    }
    return size <= uint64_t(INT64_MAX);
}

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
        const Words words(text.substr(0, end));
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
            if (!version || !IsPackagePath(words[2]) || !ParseSize(words[3], held.size) || !sha) return std::nullopt;
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
    // A version listed twice refuses the manifest; found once sorted, not by a scan per line.
    if (std::adjacent_find(manifest.versions.begin(), manifest.versions.end(),
                           [](const HeldVersion& a, const HeldVersion& b) { return a.version == b.version; }) !=
        manifest.versions.end())
        return std::nullopt;
    return manifest;
}

FileIdentity IdentityOf(const struct stat& info) {
    return FileIdentity{uint64_t(info.st_size), uint64_t(info.st_ino), uint64_t(info.st_dev),
                        int64_t(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec,
                        int64_t(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec};
}

int64_t NowNanoseconds() {
    timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int64_t TimeTick(const FileIdentity& file) {
    constexpr int64_t kSecond = 1000000000;
    // 2 s: FAT's times; 20 ms: twice the kernel's coarsest clock tick (1 to 10 ms).
    return file.changed % kSecond == 0 && file.modified % kSecond == 0 ? 2 * kSecond : kSecond / 50;
}

bool RecordedAfterChange(const FileIdentity& file, int64_t at, int64_t now) {
    // A record from the future (a clock set back since) proves nothing either.
    return at <= now && at - file.changed >= TimeTick(file);
}

std::optional<FileIdentity> FileIdentityOf(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return std::nullopt;
    return IdentityOf(info);
}

std::unique_ptr<MergedArchive> MergedArchive::Open(int directory, const std::string& name, bool thorough) {
    const int fd = OpenFileAt(directory, name);
    if (fd < 0) return nullptr;
    const FileIdentity file = FileIdentityOf(fd).value_or(FileIdentity{});
    FileDescriptor raw(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (raw.get() < 0) {
        ::close(fd);
        return nullptr;
    }
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
    return std::unique_ptr<MergedArchive>(new MergedArchive(owner.release(), std::move(raw), std::move(*manifest), file));
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

}  // namespace localrelay
