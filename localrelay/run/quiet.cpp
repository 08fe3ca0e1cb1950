#include "run/quiet.h"
#include "base/files.h"
#include "base/hex.h"
#include "repository/heldcache.h"
#include "repository/repository.h"
#include "repository/verification.h"
#include "transfer/package.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <ctime>

namespace localrelay {
namespace {

constexpr std::string_view kHeader = "zovrelay-quiet 1\n";
constexpr size_t kSealLimit = size_t(256) << 20;
constexpr const char* kPackagesPrefix = "packages/";
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

// `size` bytes from their hexadecimal digits.
bool Unhex(std::string_view hex, void* data, size_t size) {
    const std::optional<std::string> bytes = FromHex(hex);
    if (!bytes || bytes->size() != size) return false;
    std::memcpy(data, bytes->data(), size);
    return true;
}

// Splits off the next blank-separated field of `line`.
std::string_view Field(std::string_view& line) {
    const size_t blank = std::min(line.find(' '), line.size());
    const std::string_view field = line.substr(0, blank);
    line.remove_prefix(std::min(blank + 1, line.size()));
    return field;
}

template <typename T>
bool Number(std::string_view field, T& value) {
    return !field.empty() && std::from_chars(field.data(), field.data() + field.size(), value).ptr == field.data() + field.size();
}

std::string FormatIdentity(const FileIdentity& file) {
    return std::to_string(file.size) + " " + std::to_string(file.inode) + " " + std::to_string(file.device) + " " +
           std::to_string(file.modified) + " " + std::to_string(file.changed);
}

bool ParseIdentity(std::string_view& line, FileIdentity& file) {
    return Number(Field(line), file.size) && Number(Field(line), file.inode) && Number(Field(line), file.device) &&
           Number(Field(line), file.modified) && Number(Field(line), file.changed);
}

// "packages/<name>", "packages/" or a record's name: looked at relative to the root or packages/.
std::optional<FileIdentity> Look(int root, int packages, const std::string& name) {
    struct stat info {};
    int status;
    if (name == kPackagesPrefix) status = ::fstat(packages, &info);
    else if (name.rfind(kPackagesPrefix, 0) == 0) status = ::fstatat(packages, name.c_str() + 9, &info, AT_SYMLINK_NOFOLLOW);
    else status = ::fstatat(root, name.c_str(), &info, AT_SYMLINK_NOFOLLOW);
    if (status != 0) return std::nullopt;
    return IdentityOf(info);
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

std::string FormatSeal(const QuietSeal& seal) {
    std::string text(kHeader);
    text += "request " + seal.request + "\nat " + std::to_string(seal.at) + "\ndue " + std::to_string(seal.due) +
            "\nheld " + std::to_string(seal.heldVersions) + " " + std::to_string(seal.planned) + "\n";
    for (const ListedProduct& product : seal.result) {
        text += "product " + Hex(&product.entity, sizeof product.entity);
        for (const ZOVRELAY_EntityItem& component : product.components) text += " " + Hex(&component, sizeof component);
        text += "\n";
    }
    for (const auto& [name, file] : seal.files) text += "file " + FormatIdentity(file) + " " + name + "\n";
    if (!seal.plan.empty() && seal.plan.find('\n') == std::string::npos) text += "plan " + seal.plan + "\n";
    return text + "end\n";
}

std::optional<QuietSeal> ParseSeal(std::string_view text) {
    if (text.substr(0, kHeader.size()) != kHeader) return std::nullopt;
    text.remove_prefix(kHeader.size());
    QuietSeal seal;
    const auto line = [&]() {
        const size_t end = text.find('\n');
        const std::string_view found = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        return found;
    };
    std::string_view request = line(), at = line(), due = line(), held = line();
    if (Field(request) != "request" || request.size() != 64 || Field(at) != "at" || !Number(at, seal.at) ||
        Field(due) != "due" || !Number(due, seal.due) || Field(held) != "held" || !Number(Field(held), seal.heldVersions) || !Number(held, seal.planned))
        return std::nullopt;
    seal.request = std::string(request);
    seal.files.reserve(size_t(std::count(text.begin(), text.end(), '\n')));
    for (std::string_view next = line();; next = line()) {
        const std::string_view kind = Field(next);
        if (kind == "end") return text.empty() ? std::optional<QuietSeal>(std::move(seal)) : std::nullopt;
        if (kind == "product") {
            ListedProduct& product = seal.result.emplace_back();
            if (!Unhex(Field(next), &product.entity, sizeof product.entity)) return std::nullopt;
            product.components.reserve(size_t(std::count(next.begin(), next.end(), ' ')) + 1);
            while (!next.empty())
                if (!Unhex(Field(next), &product.components.emplace_back(), sizeof(ZOVRELAY_EntityItem))) return std::nullopt;
        } else if (kind == "plan") {
            seal.plan = std::string(next);
        } else if (kind == "file") {
            FileIdentity file;
            if (!ParseIdentity(next, file) || next.empty()) return std::nullopt;
            seal.files.emplace_back(std::string(next), file);
        } else {
            return std::nullopt;
        }
    }
}

std::optional<QuietSeal> ReadQuietSeal(int root, int packages, int64_t now) {
    const std::optional<std::string> text = ReadWholeFileAt(root, kQuietSealName, kSealLimit);
    std::optional<QuietSeal> seal = text ? ParseSeal(*text) : std::nullopt;
    if (!seal || now >= seal->due || seal->at > now) return std::nullopt;
    for (const auto& [name, file] : seal->files) {
        const std::optional<FileIdentity> seen = Look(root, packages, name);
        if (!seen || !(*seen == file) || !RecordedAfterChange(file, seal->at, now)) return std::nullopt;
    }
    return seal;
}

void WriteQuietSeal(int root, int packages, const std::string& request, const std::vector<ListedProduct>& result,
                    const HeldState& state, uint64_t planned, const std::string& plan) {
    QuietSeal seal{request, 0, INT64_MAX, 0, planned, result, {}, plan};
    for (const auto& [identity, served] : state.served) seal.heldVersions += served.manifest.versions.size();
    const std::set<std::string> names = NamesIn(packages);
    std::set<std::string> versioned;
    for (const auto& [identity, archives] : AllVersionArchives(names))
        for (const auto& [version, name] : archives) versioned.insert(name);
    std::vector<std::string> looked{kPackagesPrefix};
    for (const char* record : kRecords) looked.push_back(record);
    // Its signature, where the repository signs (one removed would go unnoticed otherwise).
    struct stat signature {};
    if (::fstatat(root, kSourceSignatureName, &signature, AT_SYMLINK_NOFOLLOW) == 0) looked.push_back(kSourceSignatureName);
    // A published link is its archive (a change to either is a change to both); one made or removed
    // changes packages/ itself.
    for (const std::string& name : names)
        if (!IsPublishedName(name)) looked.push_back(kPackagesPrefix + name);
    int64_t latest = 0, tick = 0;
    for (const std::string& name : looked) {
        const std::optional<FileIdentity> file = Look(root, packages, name);
        if (!file || name.find('\n') != std::string::npos) return;
        latest = std::max(latest, file->changed);
        tick = std::max(tick, TimeTick(*file));
        seal.files.emplace_back(name, *file);
    }
    // The seal vouches for what it saw only from a clock tick after the last change.
    seal.at = NowNanoseconds();
    const int64_t wait = latest + tick - seal.at;
    if (wait > 0 && wait <= 100000000) {
        const timespec pause{0, long(wait)};
        ::nanosleep(&pause, nullptr);
        seal.at = NowNanoseconds();
    }
    for (const auto& [name, file] : seal.files) {
        if (name.rfind(kPackagesPrefix, 0) != 0 || !IsArchive(name.substr(9), versioned)) continue;
        seal.due = std::min(seal.due, VerificationDue(state.verified, name.substr(9), file, seal.at));
        if (seal.due == INT64_MIN) return;  // an archive not on record: the next run reads it
    }
    (void)WriteWholeFileAt(root, kQuietSealName, FormatSeal(seal));
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
