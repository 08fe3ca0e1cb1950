#include "run/quiet.h"
#include "base/files.h"
#include "base/hex.h"
#include "repository/heldcache.h"
#include "repository/repository.h"
#include "repository/verification.h"
#include "transfer/package.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>

namespace localrelay {
namespace {

constexpr std::string_view kMagic = "zovrelay-quiet 2\n";
constexpr size_t kSealLimit = size_t(256) << 20;
constexpr size_t kDigestSize = 32;
// The records a night reads, beside every file in packages/ (and packages/ itself). Not server.ini:
// nothing reads it, and the module's clean-up resets it after every mirror.
constexpr const char* kRecords[] = {kHeldCacheName, kVerificationName, kSourceCatalogName};

template <typename T>
void Add(Sha256& digest, const T& value) {
    digest.Update(&value, sizeof value);
}

void AddText(Sha256& digest, const std::string& text) {
    Add(digest, uint64_t(text.size()));
    digest.Update(text.data(), text.size());
}

template <typename T>
void Put(std::string& bytes, const T& value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void PutIdentity(std::string& bytes, const FileIdentity& file) {
    for (const uint64_t value : {file.size, file.inode, file.device, uint64_t(file.modified), uint64_t(file.changed)})
        Put(bytes, value);
}

// The seal's bytes read front to back; every read past the end fails, and so does what follows.
class Reader {
public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}
    template <typename T>
    bool Take(T& value) {
        if (bytes_.size() < sizeof value) return false;
        std::memcpy(&value, bytes_.data(), sizeof value);
        bytes_.remove_prefix(sizeof value);
        return true;
    }
    bool Take(size_t size, std::string_view& taken) {
        if (bytes_.size() < size) return false;
        taken = bytes_.substr(0, size);
        bytes_.remove_prefix(size);
        return true;
    }
    bool TakeIdentity(FileIdentity& file) {
        uint64_t modified = 0, changed = 0;
        if (!Take(file.size) || !Take(file.inode) || !Take(file.device) || !Take(modified) || !Take(changed)) return false;
        file.modified = int64_t(modified), file.changed = int64_t(changed);
        return true;
    }
    // A count of records of at least `size` bytes each that the rest can hold.
    bool TakeCount(size_t size, uint32_t& count) { return Take(count) && uint64_t(count) * size <= bytes_.size(); }
    bool empty() const { return bytes_.empty(); }

private:
    std::string_view bytes_;
};

// A file's record: its identity, where its name begins among the names, and whether it lies in
// packages/ (1) or the root (0), padded to a multiple of 8 bytes.
constexpr size_t kFileRecordSize = 5 * 8 + 4 + 4;

void PutFile(std::string& bytes, const SealedFile& file) {
    PutIdentity(bytes, file.identity);
    Put(bytes, file.name);
    Put(bytes, uint32_t(file.inPackages));
}

// The head every seal begins with: enough to tell whether packages/ is as it saw it.
struct Head {
    std::string request, textDigest;
    int64_t at = 0, due = 0;
    uint64_t heldVersions = 0, planned = 0;
    FileIdentity packages;
};

bool TakeHead(Reader& reader, Head& head) {
    std::string_view magic, request, text;
    if (!reader.Take(kMagic.size(), magic) || magic != kMagic || !reader.Take(kDigestSize, request) ||
        !reader.Take(kDigestSize, text) || !reader.Take(head.at) || !reader.Take(head.due) ||
        !reader.Take(head.heldVersions) || !reader.Take(head.planned) || !reader.TakeIdentity(head.packages))
        return false;
    head.request = Hex(request.data(), request.size()), head.textDigest = Hex(text.data(), text.size());
    return true;
}
constexpr size_t kHeadSize = kMagic.size() + 2 * kDigestSize + 4 * 8 + 5 * 8;

bool SameDirectory(int directory, const FileIdentity& sealed, int64_t at, int64_t now) {
    struct stat info {};
    return directory >= 0 && ::fstat(directory, &info) == 0 && IdentityOf(info) == sealed &&
           RecordedAfterChange(sealed, at, now);
}

bool AsSealed(const QuietSeal& seal, size_t index, int root, int packages, int64_t now) {
    const SealedFile file = seal.File(index);
    struct stat info {};
    return ::fstatat(file.inPackages ? packages : root, seal.NameOf(file), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           IdentityOf(info) == file.identity && RecordedAfterChange(file.identity, seal.at, now);
}

bool IsArchive(const std::string& name, const std::set<std::string>& versioned) {
    return (name.size() > 11 && name.compare(name.size() - 11, 11, "_merged.zip") == 0) || versioned.count(name) != 0;
}

}  // namespace

std::string RequestDigest(const ZOVRELAY_Product* products, size_t count, const LoadedSource& source,
                          const Options& options, const SigningKey* signer) {
    Sha256 digest;
    Add(digest, uint64_t(count));
    for (size_t i = 0; i < count; ++i) {
        Add(digest, products[i].entity);
        Add(digest, uint64_t(products[i].componentCount));
        for (unsigned long k = 0; k < products[i].componentCount && products[i].components != nullptr; ++k)
            Add(digest, products[i].components[k]);
    }
    AddText(digest, source.address);
    AddText(digest, source.catalogName);
    AddText(digest, source.textDigest);
    AddText(digest, ProxyName(source.settings.proxy));
    for (const int64_t value : {options.maxBandwidth, options.buildPatch, options.maxMerge, options.diffCount,
                                options.keepCount, options.httpsLevel, options.checkBlacklist, options.lowSpeedLimit,
                                options.lowSpeedTime, options.catalogTimeout})
        Add(digest, value);
    AddText(digest, options.blacklist);
    AddText(digest, signer != nullptr ? signer->publicKey() : std::string());
    return digest.HexDigest();
}

size_t QuietSeal::FileCount() const { return records.size() / kFileRecordSize; }

SealedFile QuietSeal::File(size_t index) const {
    Reader reader(records.substr(index * kFileRecordSize, kFileRecordSize));
    SealedFile file;
    uint32_t inPackages = 0;
    reader.TakeIdentity(file.identity), reader.Take(file.name), reader.Take(inPackages);
    file.inPackages = inPackages != 0;
    return file;
}

std::string FormatSeal(const QuietSeal& seal, const std::vector<SealedFile>& files, std::string_view names) {
    const std::optional<std::string> request = FromHex(seal.request), text = FromHex(seal.textDigest);
    if (!request || request->size() != kDigestSize || !text || text->size() != kDigestSize) return "";
    std::string bytes(kMagic);
    bytes += *request + *text;
    for (const int64_t value : {seal.at, seal.due}) Put(bytes, value);
    for (const uint64_t value : {seal.heldVersions, seal.planned}) Put(bytes, value);
    PutIdentity(bytes, seal.packages);
    Put(bytes, uint32_t(seal.result.size()));
    for (const ListedProduct& product : seal.result) {
        Put(bytes, product.entity);
        Put(bytes, uint32_t(product.components.size()));
        bytes.append(reinterpret_cast<const char*>(product.components.data()),
                     product.components.size() * sizeof(ZOVRELAY_EntityItem));
    }
    Put(bytes, uint64_t(files.size()));
    for (const SealedFile& file : files) PutFile(bytes, file);
    Put(bytes, uint64_t(names.size()));
    bytes += names;
    Put(bytes, uint64_t(seal.plan.size()));
    bytes += seal.plan;
    Sha256 digest;
    digest.Update(bytes.data(), bytes.size());
    return bytes + digest.HexDigest();
}

namespace {

// The seal's parts as they lie, its trailer not checked: so that the files can be looked at while
// the trailer is (see FilesAsSealed).
std::optional<QuietSeal> ParseSealUnchecked(FileBytes bytes) {
    const std::string_view whole = bytes.view();
    if (whole.size() < 2 * kDigestSize) return std::nullopt;
    const std::string_view body = whole.substr(0, whole.size() - 2 * kDigestSize);  // then its SHA-256 in hex
    Reader reader(body);
    Head head;
    if (!TakeHead(reader, head)) return std::nullopt;
    QuietSeal seal;
    seal.request = head.request, seal.textDigest = head.textDigest, seal.at = head.at, seal.due = head.due;
    seal.heldVersions = head.heldVersions, seal.planned = head.planned, seal.packages = head.packages;
    uint32_t products = 0;
    if (!reader.TakeCount(sizeof(ZOVRELAY_EntityItem) + 4, products)) return std::nullopt;
    seal.result.resize(products);
    for (ListedProduct& product : seal.result) {
        uint32_t components = 0;
        std::string_view items;
        if (!reader.Take(product.entity) || !reader.TakeCount(sizeof(ZOVRELAY_EntityItem), components) ||
            !reader.Take(components * sizeof(ZOVRELAY_EntityItem), items))
            return std::nullopt;
        product.components.resize(components);
        if (components > 0) std::memcpy(product.components.data(), items.data(), items.size());
    }
    uint64_t files = 0, names = 0, plan = 0;
    std::string_view text;
    if (!reader.Take(files) || files > body.size() / kFileRecordSize || !reader.Take(files * kFileRecordSize, seal.records) ||
        !reader.Take(names) || names > body.size() || !reader.Take(names, seal.names) || !reader.Take(plan) ||
        plan > body.size() || !reader.Take(plan, text) || !reader.empty())
        return std::nullopt;
    // Every name ends within the names, so that a file's name, wherever it points, stops there.
    if (files > 0 && (seal.names.empty() || seal.names.back() != '\0')) return std::nullopt;
    for (size_t i = 0; i < files; ++i) {
        const SealedFile file = seal.File(i);
        uint32_t inPackages = 0;  // 0 or 1, as written
        std::memcpy(&inPackages, seal.records.data() + (i + 1) * kFileRecordSize - 4, 4);
        if (file.name >= seal.names.size() || *seal.NameOf(file) == '\0' || inPackages > 1) return std::nullopt;
    }
    seal.plan = std::string(text);
    seal.bytes = std::move(bytes);  // the views stay: the buffer does not move
    return seal;
}

// Whether the seal's bytes end with the SHA-256 of all before.
bool TrailerMatches(const QuietSeal& seal) {
    const std::string_view whole = seal.bytes.view(), body = whole.substr(0, whole.size() - 2 * kDigestSize);
    Sha256 digest;
    digest.Update(body.data(), body.size());
    return digest.HexDigest() == whole.substr(body.size());
}

}  // namespace

std::optional<QuietSeal> ParseSeal(FileBytes bytes) {
    std::optional<QuietSeal> seal = ParseSealUnchecked(std::move(bytes));
    if (seal && !TrailerMatches(*seal)) return std::nullopt;
    return seal;
}

std::optional<QuietSeal> ReadQuietSeal(int root, int packages, int64_t now) {
    std::optional<FileBytes> bytes = ReadFileBytesAt(root, kQuietSealName, kSealLimit);
    std::optional<QuietSeal> seal = bytes ? ParseSealUnchecked(std::move(*bytes)) : std::nullopt;
    if (!seal || now >= seal->due || !SameDirectory(packages, seal->packages, seal->at, now)) return std::nullopt;
    return seal;
}

bool FilesAsSealed(const QuietSeal& seal, int root, int packages, int64_t now, const std::function<void()>& during) {
    const bool whole = TrailerMatches(seal);
    during();
    for (size_t i = 0; whole && i < seal.FileCount(); ++i)
        if (!AsSealed(seal, i, root, packages, now)) return false;
    return whole;
}

bool PackagesAsSealed(int root, int packages, int64_t now) {
    const FileDescriptor fd(OpenFileAt(root, kQuietSealName));
    char bytes[kHeadSize];
    Head head;
    Reader reader(std::string_view(bytes, sizeof bytes));
    return fd.get() >= 0 && ::pread(fd.get(), bytes, sizeof bytes, 0) == ssize_t(sizeof bytes) &&
           TakeHead(reader, head) && SameDirectory(packages, head.packages, head.at, now);
}

void WriteQuietSeal(int root, int packages, const std::string& request, const std::string& textDigest,
                    const std::vector<ListedProduct>& result, const HeldState& state, uint64_t planned,
                    const std::string& plan) {
    QuietSeal seal;
    seal.request = request, seal.textDigest = textDigest, seal.due = INT64_MAX, seal.planned = planned;
    seal.result = result, seal.plan = plan;
    std::vector<SealedFile> files;
    std::string sealedNames;
    for (const auto& [identity, served] : state.served) seal.heldVersions += served.manifest.versions.size();
    const std::set<std::string> names = NamesIn(packages);
    std::set<std::string> versioned;
    for (const auto& [identity, archives] : AllVersionArchives(names))
        for (const auto& [version, name] : archives) versioned.insert(name);
    std::vector<std::pair<std::string, bool>> looked;  // name, in packages/
    for (const char* record : kRecords) looked.emplace_back(record, false);
    // Its signature, where the repository signs (one removed would go unnoticed otherwise).
    struct stat signature {};
    if (::fstatat(root, kSourceSignatureName, &signature, AT_SYMLINK_NOFOLLOW) == 0)
        looked.emplace_back(kSourceSignatureName, false);
    // The files of packages/ are not looked at one by one: a name made, removed or renamed there
    // changes packages/ itself, and bytes written over in place (times set back or not) are the
    // read-back's to find, as those that rot are. A temporary left is for the next run to remove:
    // no seal then.
    for (const std::string& name : names)
        if (IsTemporaryName(name)) return;
    const std::optional<FileIdentity> directory = FileIdentityOf(packages);
    if (!directory) return;
    seal.packages = *directory;
    int64_t latest = directory->changed, tick = TimeTick(*directory);
    for (const auto& [name, inPackages] : looked) {
        struct stat info {};
        if (::fstatat(inPackages ? packages : root, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return;
        const FileIdentity file = IdentityOf(info);
        latest = std::max(latest, file.changed);
        tick = std::max(tick, TimeTick(file));
        if (sealedNames.size() > UINT32_MAX - name.size() - 1) return;
        files.push_back(SealedFile{file, uint32_t(sealedNames.size()), inPackages});
        sealedNames.append(name).push_back('\0');
    }
    // The seal vouches for what it saw only from a clock tick after the last change.
    seal.at = NowNanoseconds();
    const int64_t wait = latest + tick - seal.at;
    if (wait > 0 && wait <= 100000000) {
        const timespec pause{0, long(wait)};
        ::nanosleep(&pause, nullptr);
        seal.at = NowNanoseconds();
    }
    for (const std::string& name : names) {
        if (!IsArchive(name, versioned)) continue;
        struct stat info {};
        seal.due = ::fstatat(packages, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0
                       ? std::min(seal.due, VerificationDue(state.verified, name, IdentityOf(info), seal.at))
                       : INT64_MIN;
        if (seal.due == INT64_MIN) return;  // an archive not on record: the next run reads it
    }
    const std::string bytes = FormatSeal(seal, files, sealedNames);
    if (!bytes.empty()) (void)WriteWholeFileAt(root, kQuietSealName, bytes);
}

void RemoveQuietSeal(int root) { RemoveAt(root, kQuietSealName); }

std::optional<uint64_t> HeldNextNight(const RunLog& log) {
    const auto stored = [](const std::string& action, ZOVRELAY_Status status) {
        return (action == "download" || action == "heal") && status > 0;
    };
    for (const PackageOutcome& outcome : log.packages)
        if (!stored(outcome.action, outcome.status)) return std::nullopt;
    for (const RunLog::Counted& counted : log.counted)
        if (!counted.download || counted.status <= 0) return std::nullopt;
    return log.held + log.size();
}

}  // namespace localrelay
