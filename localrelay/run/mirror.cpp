#include "run/mirror.h"
#include "base/failure.h"
#include "transfer/downloader.h"
#include "base/files.h"
#include "run/listing.h"
#include "transfer/package.h"
#include "repository/repository.h"
#include "base/status.h"

#include "repository/verification.h"
#include "archive/ziplayout.h"
#include "archive/zipwriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <ctime>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <set>

namespace localrelay {
namespace {

// One component version the request names, with the selected products that contain it.
struct Wanted {
    const Component* component;
    std::vector<ProductRef> products;
};

struct Plan {
    std::vector<Wanted> wanted;                         // in the order first named
    std::map<size_t, std::vector<size_t>> perProduct;  // catalog product index -> indexes into wanted
    // Lookups that keep planning linear in the catalog's size (give or take a logarithm).
    std::map<const Component*, size_t> position;  // index into wanted
    std::set<std::pair<size_t, size_t>> listed;   // (product index, wanted index) in perProduct
};

void AddWanted(Plan& plan, const Catalog& catalog, const Product& product, const Component* component) {
    const auto [at, added] = plan.position.emplace(component, plan.wanted.size());
    const size_t index = at->second;
    if (added) plan.wanted.push_back(Wanted{component, {}});
    std::vector<ProductRef>& products = plan.wanted[index].products;
    if (std::none_of(products.begin(), products.end(), [&](const ProductRef& p) {
            return p.identity == product.identity && p.version == product.version;
        }))
        products.push_back(ProductRef{product.identity, product.version});
    const size_t productIndex = size_t(&product - catalog.products.data());
    if (plan.listed.emplace(productIndex, index).second) plan.perProduct[productIndex].push_back(index);
}

// A component named at its newest catalog version brings the catalog's older versions along: a
// mirror keeps what its source keeps (as many as maxmerge allows), so a chain of repositories
// passes every held version on, not only the newest.
void AddWithOlder(Plan& plan, const Catalog& catalog, const ComponentIndex& index, const Product& product,
                  const Component* component) {
    AddWanted(plan, catalog, product, component);
    if (component != FindComponent(index, component->identity, Version{})) return;
    for (const Component* older : index.at(component->identity))
        if (older != component) AddWanted(plan, catalog, product, older);
}

// Fails (kNotFound) before anything is downloaded when any part of the request names nothing.
ZOVRELAY_Status MakePlan(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count, Plan& plan) {
    const ComponentIndex index = IndexComponents(catalog);
    for (size_t r = 0; r < count; ++r) {
        std::vector<const Product*> matched;
        const ZOVRELAY_Status status = SelectProducts(catalog, &products[r], 1, matched);
        if (status <= 0) return status;
        if (products[r].componentCount == 0) {
            for (const Product* product : matched)
                for (const Identity& identity : product->components)
                    AddWithOlder(plan, catalog, index, *product, FindComponent(index, identity, Version{}));
            continue;
        }
        std::vector<std::set<Identity>> contents;  // of each matched product
        for (const Product* product : matched) contents.emplace_back(product->components.begin(), product->components.end());
        for (size_t c = 0; c < products[r].componentCount; ++c) {
            const ZOVRELAY_EntityItem& requested = products[r].components[c];
            bool found = false;
            for (size_t m = 0; m < matched.size(); ++m) {
                const Product* product = matched[m];
                if (contents[m].count(IdentityOf(requested)) == 0) continue;
                const Component* component = FindComponent(index, IdentityOf(requested), VersionOf(requested));
                if (component == nullptr) continue;
                AddWithOlder(plan, catalog, index, *product, component);
                found = true;
            }
            if (!found) return Fail(kNotFound, "not found", "component " + FormatIdentity(IdentityOf(requested)));
        }
    }
    return kSuccess;
}

// Failures of one package leave the rest of the run going; these stop it at once: the repository
// cannot take more until the administrator acts.
bool StopsTheRun(ZOVRELAY_Status status) {
    return status == kCancelled || status == kIoError || status == kOutOfMemory || status == kRepositoryNotAccessible ||
           status == kNoSpace || status == kPermissionDenied;
}

// Failures of the repository's own files, whose message names the file rather than the package.
bool RepositoryFailure(ZOVRELAY_Status status) {
    return status == kIoError || status == kNoSpace || status == kPermissionDenied;
}

// What FormatManifest tells apart, compared without formatting either.
bool SameManifest(const Manifest& a, const Manifest& b) {
    const auto sameVersion = [](const HeldVersion& x, const HeldVersion& y) {
        return x.version == y.version && x.size == y.size && x.path == y.path && x.sha256 == y.sha256;
    };
    const auto sameProduct = [](const ProductRef& x, const ProductRef& y) {
        return x.identity == y.identity && x.version == y.version;
    };
    return a.identity == b.identity && a.section == b.section &&
           std::equal(a.versions.begin(), a.versions.end(), b.versions.begin(), b.versions.end(), sameVersion) &&
           std::equal(a.products.begin(), a.products.end(), b.products.begin(), b.products.end(), sameProduct);
}

void SortNewestFirst(std::vector<HeldVersion>& versions) {
    std::sort(versions.begin(), versions.end(),
              [](const HeldVersion& a, const HeldVersion& b) { return b.version < a.version; });
}

// Where an entry's data start in a merged archive: with buildpatch, a package large enough for
// it starts on a block boundary, so that its per-version archive (and the archive's next rewrite)
// can share its blocks instead of storing it again. Smaller ones would gain less than the padding.
uint64_t Alignment(const Options& options, uint64_t size) {
    return options.buildPatch != 0 && size >= 16 * kShareableBlock ? kShareableBlock : 0;
}

// A verified part file in packages/, removed unless Release()d (after it was renamed).
class Part {
public:
    Part(int directory, std::string name) : packages_(directory), name_(std::move(name)) {}
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    ~Part() {
        if (!name_.empty()) ::unlinkat(packages_, name_.c_str(), 0);
    }
    const std::string& name() const { return name_; }
    void Release() { name_.clear(); }

private:
    int packages_;
    std::string name_;
};

class Mirrorer {
public:
    Mirrorer(const Repository& repository, const Options& options, const Events& events, const LoadedSource& source,
             RunLog* log, Alternates* alternates, HeldState& state)
        : log_(log), root_(repository.directory.get()), packages_(repository.packages.get()),
          packagesPath_(repository.path + "/packages"), options_(options), events_(events), source_(source),
          alternates_(alternates), cache_(state.cache), listing_(state.packages), verified_(state.verified),
          served_(state.served), sourceCatalog_(state.sourceCatalog), now_(int64_t(std::time(nullptr))) {}

    ZOVRELAY_Status Run(const Plan& plan);
    const std::map<Identity, Manifest>& held() const { return final_; }
    const std::vector<std::string>& leaving() const { return leaving_; }
    bool servedExact() const { return servedExact_; }

private:
    struct Group {
        Identity identity;
        std::vector<const Wanted*> wanted;
        std::vector<const Component*> downloads;
        std::vector<Version> damaged;  // held versions that no longer verify: the archive is rewritten
        std::vector<const Component*> skipped;  // older than the versions kept
        bool settled = false;  // nothing to download and nothing to change: its archive stays as it is
    };

    // The component's merged archive; nullptr when there is none we can trust, which is then replaced.
    std::unique_ptr<MergedArchive> OpenMerged(const Identity& identity) const {
        std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages_, MergedArchiveName(identity));
        return archive != nullptr && archive->manifest().identity == identity ? std::move(archive) : nullptr;
    }
    void RecordVerified(const std::string& name, const FileIdentity& file) {
        verified_[name] = Verified{file, now_};
        verifiedChanged_ = true;
    }
    void Note(ZOVRELAY_Status status) {
        if (failure_ > 0) failure_ = status;
    }
    bool Blacklisted(const Component& component) const { return IsBlacklisted(options_, component.PackagePath()); }
    void Decide(Group& group);
    Manifest Updated(const Group& group, Manifest manifest) const;
    ZOVRELAY_Status Download(const std::vector<Group>& groups);
    ZOVRELAY_Status CheckSpace(const std::vector<Group>& groups) const;
    PackageOutcome Outcome(const Component& component, const char* action) const {
        return PackageOutcome{component.PackagePath(), FormatIdentity(component.identity),
                              FormatVersion(component.version), source_.address, action, component.size, 0, 0,
                              kSuccess, ""};
    }
    ZOVRELAY_Status Failed(PackageOutcome outcome, ZOVRELAY_Status status, std::string reason,
                           const std::string& object, bool raise = true);
    ZOVRELAY_Status Store(const Group& group);
    ZOVRELAY_Status BuildArchive(const Group& group, Manifest& next,
                                 const std::map<Version, const localrelay::Download*>& fresh,
                                 const MergedArchive* previous,
                                 std::map<Version, std::unique_ptr<TemporaryFile>>& copies, std::string& built);
    ZOVRELAY_Status KeepVersionArchives(const Group& group, const Manifest& manifest,
                                        std::map<Version, std::unique_ptr<TemporaryFile>>& copies);
    bool CheckVersionArchives();
    void Log(const Identity& identity, const HeldVersion& held, const char* action, ZOVRELAY_Status status,
             const localrelay::Download* d = nullptr) {
        if (log_ == nullptr) return;
        log_->packages.push_back(PackageOutcome{held.path, FormatIdentity(identity), FormatVersion(held.version),
                                                d != nullptr ? d->address : source_.address, action, held.size,
                                                d != nullptr ? d->received : 0, d != nullptr ? d->seconds : 0, status,
                                                d != nullptr && status <= 0 ? d->reason : std::string()});
    }

    RunLog* log_;
    int root_, packages_;
    std::string packagesPath_;
    const Options& options_;
    const Events& events_;
    const LoadedSource& source_;
    Alternates* alternates_;
    HeldCache& cache_;  // what the merged archives hold, without opening those that did not change
    Listing& listing_;  // packages/, told of every change the run makes there
    std::optional<Catalog> reloaded_;  // the source's catalog read again after a byte range failed
    bool reloadTried_ = false;
    VerificationRecord& verified_;
    bool verifiedChanged_ = false;
    ServedCatalog& served_;  // what source.ini says now
    std::optional<std::string>& sourceCatalog_;  // its text, while served_ is as read
    int64_t now_;
    std::map<Identity, Manifest> final_;
    bool servedExact_ = true;  // served_ is what the repository holds: no write failed half-way
    std::vector<std::string> leaving_;
    ZOVRELAY_Status failure_ = kSuccess;
    std::vector<localrelay::Download> downloads_;
    std::map<const Component*, const localrelay::Download*> downloaded_;  // verified parts
};

// What to download: the wanted versions that will be among the newest kept and that the merged
// archive does not hold with the same digest. An older version would be dropped again at once.
// An archive that changed since it was last read back in full, or was not read for a week, is
// verified now: a version that fails counts as not held, so it is downloaded again (healed).
// Any other archive is known from the held cache, unopened.
void Mirrorer::Decide(Group& group) {
    const std::string name = MergedArchiveName(group.identity);
    std::unique_ptr<MergedArchive> archive;  // opened only to be read back in full
    const Manifest* manifest = nullptr;
    if (const CachedArchive* cached = cache_.Find(packages_, name);
        cached != nullptr && cached->manifest.identity == group.identity) {
        manifest = &cached->manifest;
        if (NeedsVerification(verified_, name, cached->file, now_)) {
            archive = OpenMerged(group.identity);
            // What the archive says wins; a record that said otherwise is read afresh.
            if (archive == nullptr || !(archive->file() == cached->file) || !SameManifest(archive->manifest(), *manifest))
                cache_.Forget(name);
            manifest = archive != nullptr ? &archive->manifest() : nullptr;
        }
    }
    std::vector<Version> candidates;
    std::vector<Version>& damaged = group.damaged;
    if (manifest != nullptr) {
        for (const HeldVersion& held : manifest->versions) {
            if (archive != nullptr && archive->Verify(held) <= 0) {
                damaged.push_back(held.version);
                continue;
            }
            candidates.push_back(held.version);
        }
        if (archive != nullptr && damaged.empty()) RecordVerified(name, archive->file());
    }
    for (const Wanted* wanted : group.wanted)
        if (!Blacklisted(*wanted->component)) candidates.push_back(wanted->component->version);
    std::sort(candidates.rbegin(), candidates.rend());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    if (candidates.size() > options_.VersionsKept()) candidates.resize(options_.VersionsKept());

    for (const Wanted* wanted : group.wanted) {
        const Component& component = *wanted->component;
        if (Blacklisted(component)) continue;
        if (std::find(candidates.begin(), candidates.end(), component.version) == candidates.end()) {
            group.skipped.push_back(&component);
            continue;
        }
        const HeldVersion* held = manifest != nullptr ? manifest->Find(component.version) : nullptr;
        const bool broken = std::find(damaged.begin(), damaged.end(), component.version) != damaged.end();
        if (held == nullptr || broken || held->sha256 != component.sha256 || held->size != component.size)
            group.downloads.push_back(&component);
    }
    // Store would write nothing for it: the run keeps the manifest as it is, without opening it.
    group.settled = manifest != nullptr && group.downloads.empty() && damaged.empty() &&
                    SameManifest(Updated(group, *manifest), *manifest);
    if (group.settled) final_[group.identity] = *manifest;
}

// The manifest Store records, given the versions held and stored now: the section as the source
// lists it now, the newest versions kept, and the selected products that contain a kept version.
Manifest Mirrorer::Updated(const Group& group, Manifest next) const {
    next.section = group.wanted.front()->component->section;
    SortNewestFirst(next.versions);
    if (next.versions.size() > options_.VersionsKept()) next.versions.resize(options_.VersionsKept());
    for (const Wanted* wanted : group.wanted) {
        if (Blacklisted(*wanted->component) || next.Find(wanted->component->version) == nullptr) continue;
        for (const ProductRef& product : wanted->products) {
            auto same = std::find_if(next.products.begin(), next.products.end(),
                                     [&](const ProductRef& p) { return p.identity == product.identity; });
            if (same == next.products.end()) next.products.push_back(product);
            else if (same->version < product.version) same->version = product.version;
        }
    }
    std::sort(next.products.begin(), next.products.end(),
              [](const ProductRef& a, const ProductRef& b) { return a.identity < b.identity; });
    return next;
}

// A package that failed is reported as it happens, by a "downloadend" whose `finished` (the bytes
// verified, 0) differs from `total` and whose information is "<path>: <reason>", and goes into the
// run log. The run goes on unless the failure stops it; the first failure is the run's status.
ZOVRELAY_Status Mirrorer::Failed(PackageOutcome outcome, ZOVRELAY_Status status, std::string reason,
                                 const std::string& object, bool raise) {
    if (reason.empty()) reason = StatusText(status);
    outcome.status = status;
    outcome.reason = reason;
    if (log_ != nullptr) log_->packages.push_back(outcome);
    if (status == kCancelled) return status;
    // The event first: a handler may run relay calls of its own, which settle the thread's record.
    if (raise && !events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, outcome.path + ": " + reason, outcome.size, 0))
        return kCancelled;
    if (failure_ > 0 || StopsTheRun(status)) Fail(status, reason, object);
    Note(status);
    return StopsTheRun(status) ? status : kSuccess;
}

ZOVRELAY_Status Mirrorer::Store(const Group& group) {
    const Identity& identity = group.identity;
    const std::string merged = MergedArchiveName(identity);
    std::unique_ptr<MergedArchive> previous = OpenMerged(identity);
    Manifest manifest;
    if (previous != nullptr) manifest = previous->manifest();
    manifest.identity = identity;

    // The verified downloads, in hidden part files that go unless they become the archive.
    std::map<Version, std::unique_ptr<Part>> parts;
    std::map<Version, const localrelay::Download*> fresh;
    for (const Component* component : group.downloads) {
        const auto done = downloaded_.find(component);
        if (done == downloaded_.end()) continue;
        fresh[component->version] = done->second;
        parts[component->version] = std::make_unique<Part>(packages_, done->second->part);
    }

    Manifest next = manifest;
    for (const Component* component : group.downloads) {
        if (fresh.count(component->version) == 0) continue;
        next.versions.erase(std::remove_if(next.versions.begin(), next.versions.end(),
                                           [&](const HeldVersion& h) { return h.version == component->version; }),
                            next.versions.end());
        next.versions.push_back(
            HeldVersion{component->version, component->PackagePath(), component->size, component->sha256});
    }
    next = Updated(group, std::move(next));

    std::map<Version, std::unique_ptr<TemporaryFile>> copies;  // per-version archives to be
    if (!next.versions.empty() && (previous == nullptr || FormatManifest(next) != FormatManifest(manifest) ||
                                   !fresh.empty() || !group.damaged.empty())) {
        std::string built;  // the name the new archive is written under
        ZOVRELAY_Status status = BuildArchive(group, next, fresh, previous.get(), copies, built);
        const bool unnamed = status <= 0;  // the writer's failures name no file; the file helpers' name theirs
        if (status > 0 && next.versions.empty()) {  // nothing held verified: the old archive stays
            ::unlinkat(packages_, built.c_str(), 0);
            return kSuccess;
        }
        // source.ini must never name a range of the archive being replaced: it stops listing the
        // component first, and lists its new ranges once the new archive is in place.
        // A component it did not list yet is added when the run ends (the caller rewrites both
        // catalogs): rewriting source.ini after every new component made a first mirror of many
        // small components quadratic in bytes written.
        const bool listed = status > 0 && served_.erase(identity) != 0;
        sourceCatalog_.reset();
        if (status > 0 && listed) status = WriteWholeFileAt(root_, kSourceCatalogName, FormatSourceCatalog(served_));
        if (status > 0) {
            previous.reset();
            status = ReplaceAt(packages_, built, merged);
            for (auto& [version, part] : parts)
                if (status > 0 && part->name() == built) part->Release();
        }
        if (status > 0) {
            served_[identity] = Served(packages_, next);
            if (listed) status = WriteWholeFileAt(root_, kSourceCatalogName, FormatSourceCatalog(served_));
        }
        if (status <= 0) {
            const Failure cause = FromErrno(errno);
            servedExact_ = false;
            if (!built.empty()) ::unlinkat(packages_, built.c_str(), 0);
            if (status == kIoError && RepositoryFailure(cause.status)) status = cause.status;
            const std::string reason = status == cause.status ? cause.reason : "cannot write";
            if (unnamed && (failure_ > 0 || StopsTheRun(status))) Fail(status, reason, "packages/" + merged);
            // What this run downloaded for the component is lost with the archive.
            const std::string identityText = FormatIdentity(identity);
            if (log_ != nullptr)
                for (PackageOutcome& outcome : log_->packages)
                    if (outcome.identity == identityText && outcome.action == "download" && outcome.status > 0)
                        outcome.status = status, outcome.reason = "not stored: " + reason;
            if (StopsTheRun(status)) return status;
            Note(status);
            return kSuccess;
        }
        // Every byte was checked as it was written, and the layout on reopening: the archive is
        // verified as it is now.
        if (const std::unique_ptr<MergedArchive> written = OpenMerged(identity))
            RecordVerified(merged, written->file());
    }
    final_[identity] = next;
    return KeepVersionArchives(group, next, copies);
}

// Writes the merged archive of `next` under a hidden name in packages/ (`built`), complete and
// checked, for the caller to rename into place. The largest package downloaded now becomes the
// archive: its part holds the bytes after a reserved header already, so they are written once.
// Other versions are copied in, each checked on the way: a held copy that no longer verifies is
// left out of `next` (so a damaged repository heals on the next run) and reported when wanted.
// With buildpatch, each new version's per-version archive is made first (`copies`), sharing the
// part's blocks where the file system can.
ZOVRELAY_Status Mirrorer::BuildArchive(const Group& group, Manifest& next,
                                       const std::map<Version, const localrelay::Download*>& fresh,
                                       const MergedArchive* previous,
                                       std::map<Version, std::unique_ptr<TemporaryFile>>& copies, std::string& built) {
    const HeldVersion* first = nullptr;  // the version whose part becomes the archive
    const localrelay::Download* base = nullptr;
    for (const HeldVersion& held : next.versions) {
        const auto f = fresh.find(held.version);
        if (f != fresh.end() && (base == nullptr || f->second->size > base->size)) base = f->second, first = &held;
    }
    FileDescriptor file;
    if (base != nullptr) {
        file = FileDescriptor(OpenOwnFileAt(packages_, base->part));
        if (file.get() < 0) return FileStatus(errno);
        built = base->part;
    } else {
        TemporaryFile temporary;
        const std::string merged = MergedArchiveName(group.identity);
        const ZOVRELAY_Status created = temporary.Create(packages_, TemporaryPrefix(merged), kTemporarySuffix, "packages/" + merged);
        if (created <= 0) return created;
        file = FileDescriptor(::fcntl(temporary.fd(), F_DUPFD_CLOEXEC, 0));
        if (file.get() < 0) return FileStatus(errno);
        built = temporary.name();
        temporary.Keep();  // the caller renames it, or removes it when anything fails
    }
    ZOVRELAY_Status status = kSuccess;

    if (options_.buildPatch != 0) {
        for (const auto& [version, d] : fresh) {
            if (next.Find(version) == nullptr) continue;
            const FileDescriptor part(OpenFileAt(packages_, d->part));
            const std::string target = VersionArchiveName(group.identity, version);
            auto copy = std::make_unique<TemporaryFile>();
            status = copy->Create(packages_, TemporaryPrefix(target), kTemporarySuffix, "packages/" + target);
            if (status > 0) status = part.get() >= 0 ? CopyRange(part.get(), d->headroom, d->size, copy->fd(), 0) : FileStatus(errno);
            if (status <= 0) return status;
            copies[version] = std::move(copy);
        }
    }

    ZipWriter writer(file.get(), base != nullptr ? base->headroom + base->size : 0);
    if (base != nullptr) status = writer.Adopt(EntryName(*first), 0, base->size, base->crc32, Alignment(options_, base->size));
    const std::optional<std::map<std::string, EntryRange>> ranges =
        previous != nullptr ? ReadEntryRanges(previous->fd()) : std::nullopt;
    for (auto held = next.versions.begin(); status > 0 && held != next.versions.end();) {
        const auto f = fresh.find(held->version);
        if (base != nullptr && f != fresh.end() && f->second == base) {
            ++held;
            continue;
        }
        const std::string name = EntryName(*held);
        ZOVRELAY_Status copied = kIntegrityFailed;
        if (f != fresh.end()) {
            const FileDescriptor part(OpenFileAt(packages_, f->second->part));
            if (part.get() >= 0)
                copied = writer.Copy(name, part.get(), f->second->headroom, held->size, held->sha256, Alignment(options_, held->size));
        } else if (ranges) {
            const auto range = ranges->find(name);
            if (range != ranges->end() && range->second.stored && range->second.size == held->size)
                copied = writer.Copy(name, previous->fd(), range->second.offset, held->size, held->sha256,
                                     Alignment(options_, held->size));
        }
        if (copied > 0) {
            ++held;
            continue;
        }
        if (copied != kIntegrityFailed) return copied;
        const bool wanted = std::any_of(group.wanted.begin(), group.wanted.end(),
                                        [&](const Wanted* w) { return w->component->version == held->version; });
        if (wanted) {
            PackageOutcome outcome{held->path, FormatIdentity(group.identity), FormatVersion(held->version), "",
                                   "verify", held->size, 0, 0, kSuccess, ""};
            const ZOVRELAY_Status stop = Failed(outcome, kIntegrityFailed, "held copy failed its check; dropped", held->path);
            if (stop <= 0) return stop;
        }
        copies.erase(held->version);
        held = next.versions.erase(held);
    }
    if (status <= 0 || next.versions.empty()) return status;
    if ((status = writer.Add(kManifestEntry, FormatManifest(next))) <= 0 || (status = writer.Finish()) <= 0)
        return status;
    const std::unique_ptr<MergedArchive> written = MergedArchive::Open(packages_, built, true);
    if (written == nullptr || FormatManifest(written->manifest()) != FormatManifest(next)) return kIntegrityFailed;
    return kSuccess;
}

// Per-version archives are made only for versions this run downloaded: a version held already is
// served from its merged archive, and rebuilding the copies the module's clean-up deletes would
// write and delete the same files every night. Pruning beyond keepcount happens after the index
// stops naming the files (see Mirror's caller).
ZOVRELAY_Status Mirrorer::KeepVersionArchives(const Group& group, const Manifest& manifest,
                                              std::map<Version, std::unique_ptr<TemporaryFile>>& copies) {
    for (auto& [version, copy] : copies) {
        if (manifest.Find(version) == nullptr) continue;
        const std::string target = VersionArchiveName(group.identity, version);
        struct stat info {};
        // Republished (or healed) bytes replace a file the index may name: it stops naming it first.
        if (::fstatat(packages_, target.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            WriteCatalogs(root_, packages_, ReadHeld(packages_), {target});
        const ZOVRELAY_Status status = copy->ReplaceInto(target);
        if (StopsTheRun(status)) return status;
        if (status <= 0) Note(status);
    }
    if (options_.keepCount > 0) {
        const std::vector<std::pair<Version, std::string>> archives = VersionArchives(packages_, group.identity);
        for (size_t i = 0; i + size_t(options_.keepCount) < archives.size(); ++i) leaving_.push_back(archives[i].second);
    }
    return kSuccess;
}

// Per-version archives follow the same verification policy, checked against their merged
// archive's manifest: one whose bytes differ is written again from the merged archive (removed when
// that fails), so the index never names garbage.
bool Mirrorer::CheckVersionArchives() {
    bool changed = false;
    for (const auto& [identity, archives] : AllVersionArchives(listing_.names())) {
        const auto served = served_.find(identity);
        std::unique_ptr<MergedArchive> merged;
        for (const auto& [version, name] : archives) {
            const HeldVersion* held = served != served_.end() ? served->second.manifest.Find(version) : nullptr;
            const FileDescriptor fd(OpenFileAt(packages_, name));
            const std::optional<FileIdentity> file = fd.get() >= 0 ? FileIdentityOf(fd.get()) : std::nullopt;
            if (held == nullptr || !file || !NeedsVerification(verified_, name, *file, now_)) continue;
            if (FileMatches(fd.get(), held->size, held->sha256)) {
                RecordVerified(name, *file);
                continue;
            }
            if (merged == nullptr) merged = OpenMerged(identity);
            const ZOVRELAY_Status status =
                merged != nullptr ? ExtractInto(*merged, *held, packages_, TemporaryPrefix(name), kTemporarySuffix, name)
                                  : kIntegrityFailed;
            if (status <= 0) RemoveAt(packages_, name);
            Log(identity, *held, "heal", status);
            changed = true;
        }
    }
    return changed;
}

ZOVRELAY_Status Mirrorer::Run(const Plan& plan) {
    std::vector<Group> groups;
    std::map<Identity, size_t> groupOf;
    for (const Wanted& wanted : plan.wanted) {
        const Identity& identity = wanted.component->identity;
        const auto [at, added] = groupOf.emplace(identity, groups.size());
        if (added) groups.push_back(Group{identity, {}, {}, {}, {}, false});
        groups[at->second].wanted.push_back(&wanted);
    }
    uint64_t planned = 0;
    for (Group& group : groups) {
        Decide(group);
        for (const Component* component : group.downloads) planned += component->size;
        for (const Wanted* wanted : group.wanted) {
            const Component& component = *wanted->component;
            const auto& downloads = group.downloads;
            if (log_ == nullptr || Blacklisted(component) ||
                std::find(downloads.begin(), downloads.end(), &component) != downloads.end())
                continue;
            const auto& skip = group.skipped;
            if (std::find(skip.begin(), skip.end(), &component) != skip.end()) log_->packages.push_back(Outcome(component, "skip"));
            else ++log_->held;
        }
    }
    if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOAD, source_.address, planned, 0)) return kCancelled;
    // Settled components are done but for keepcount; the rest go to Download, which stores them.
    std::vector<Group> stored;
    std::map<Identity, std::vector<std::pair<Version, std::string>>> versionArchives;
    if (options_.keepCount > 0) versionArchives = AllVersionArchives(listing_.names());
    for (Group& group : groups) {
        if (!group.settled) {
            stored.push_back(std::move(group));
            continue;
        }
        const auto& archives = versionArchives[group.identity];
        for (size_t i = 0; options_.keepCount > 0 && i + size_t(options_.keepCount) < archives.size(); ++i)
            leaving_.push_back(archives[i].second);
    }
    ZOVRELAY_Status status = Download(stored);
    if (!stored.empty()) listing_.Changed();
    if (status <= 0) servedExact_ = false;
    for (const Group& group : stored) cache_.Forget(MergedArchiveName(group.identity));  // perhaps rewritten
    if (status > 0) {
        // Parts of packages this run still wants stay for the next run to continue; others go.
        if (RemoveUnplannedParts(packages_, listing_.names(), downloads_)) listing_.Changed();
        if (CheckVersionArchives()) listing_.Changed();
    }
    // Archives gone since they were recorded need no record.
    const std::set<std::string>& present = listing_.names();
    for (auto record = verified_.begin(); record != verified_.end();) {
        if (present.count(record->first) == 0) record = verified_.erase(record), verifiedChanged_ = true;
        else ++record;
    }
    if (verifiedChanged_) WriteVerification(root_, verified_);  // without it the next run verifies again: no harm
    return status <= 0 ? status : failure_;
}

// Every package the plan lacks, from one queue. A component's merged archive is written as soon
// as its last download ended, so that a run cut short keeps every component it completed.
ZOVRELAY_Status Mirrorer::Download(const std::vector<Group>& groups) {
    std::vector<const Component*> components;
    std::vector<size_t> groupOf, pending(groups.size());
    for (const Group& group : groups) {
        pending[size_t(&group - groups.data())] = group.downloads.size();
        for (const Component* component : group.downloads) {
            localrelay::Download d;
            d.information = component->PackagePath();
            d.address = JoinAddress(source_.address, component->path);
            d.settings = &source_.settings;
            d.offset = component->offset;
            d.size = component->size;
            d.sha256 = component->sha256;
            d.part = PartName(group.identity, component->version);
            // Room for the header of the merged archive entry the part may become.
            d.headroom = LocalHeaderSize(EntryName(HeldVersion{component->version, component->PackagePath(), 0, {}}),
                                         component->size, 0, Alignment(options_, component->size));
            downloads_.push_back(std::move(d));
            components.push_back(component);
            groupOf.push_back(size_t(&group - groups.data()));
        }
    }
    ZOVRELAY_Status status = CheckSpace(groups);
    if (status <= 0) return status;
    for (const Group& group : groups) {
        if (!group.downloads.empty()) continue;
        if ((status = Store(group)) <= 0) return status;
    }
    // A package the serving source could not deliver is taken from the next source that lists
    // the same version with the same size and SHA-256, in further rounds.
    // A byte range of a repository source that does not match its catalog means the source
    // replaced that archive since we read its catalog: the catalog is read again, once per run,
    // and the range it names now is tried instead.
    std::vector<size_t> sourceOf(downloads_.size(), 0);
    std::vector<bool> rangeRetried(downloads_.size(), false);
    std::vector<std::pair<size_t, localrelay::Download>> again;
    auto retry = [&](size_t i, const LoadedSource& from, const Component& listed) {
        localrelay::Download next = downloads_[i];
        next.address = JoinAddress(from.address, listed.path);
        next.settings = &from.settings;
        next.offset = listed.offset;
        again.emplace_back(i, std::move(next));
        return kSuccess;
    };
    auto settle = [&](size_t i) -> ZOVRELAY_Status {
        localrelay::Download& d = downloads_[i];
        const Component& component = *components[i];
        if (d.status == kIntegrityFailed && d.offset != 0 && sourceOf[i] == 0 && !rangeRetried[i]) {
            rangeRetried[i] = true;
            if (!reloadTried_) {
                reloadTried_ = true;
                reloaded_ = ReloadCatalog(source_);
            }
            if (reloaded_)
                for (const Component& fresh : reloaded_->components)
                    if (fresh.identity == component.identity && fresh.version == component.version &&
                        fresh.sha256 == component.sha256 && fresh.size == component.size)
                        return retry(i, source_, fresh);
        }
        const LoadedSource* other = nullptr;
        const Component* listed = nullptr;
        if (d.status <= 0 && !StopsTheRun(d.status) && alternates_ != nullptr && alternates_->Find(component, sourceOf[i], other, listed))
            return retry(i, *other, *listed);
        const Group& group = groups[groupOf[i]];
        const bool heal = std::find(group.damaged.begin(), group.damaged.end(), component.version) != group.damaged.end();
        if (d.status > 0) {
            Log(group.identity, HeldVersion{component.version, component.PackagePath(), component.size, component.sha256},
                heal ? "heal" : "download", d.status, &d);
            downloaded_[&component] = &d;
        } else {
            PackageOutcome outcome = Outcome(component, heal ? "heal" : "download");
            outcome.source = d.address;
            outcome.bytes = d.received;
            outcome.seconds = d.seconds;
            // The downloader raised the failed "downloadend" already.
            const std::string object = RepositoryFailure(d.status) ? "packages/" + d.part : component.PackagePath();
            const ZOVRELAY_Status stop = Failed(outcome, d.status, d.reason, object, false);
            if (stop <= 0) return stop;
        }
        return --pending[groupOf[i]] == 0 ? Store(group) : kSuccess;
    };
    status = DownloadAll(downloads_, packages_, options_.maxBandwidth, events_,
                         [&](localrelay::Download& d) { return settle(size_t(&d - downloads_.data())); });
    while (status > 0 && !again.empty()) {
        std::vector<size_t> original;
        std::vector<localrelay::Download> round;
        for (auto& [i, d] : again) original.push_back(i), round.push_back(std::move(d));
        again.clear();
        status = DownloadAll(round, packages_, options_.maxBandwidth, events_, [&](localrelay::Download& d) {
            const size_t i = original[size_t(&d - round.data())];
            downloads_[i] = d;
            return settle(i);
        });
    }
    return status;
}

// Fails early, before a byte is fetched, when the repository's file system cannot hold what the
// plan needs: the packages still to fetch, and each touched merged archive written anew beside
// the old one.
ZOVRELAY_Status Mirrorer::CheckSpace(const std::vector<Group>& groups) const {
    uint64_t needed = 0;
    // A package is written once (twice with buildpatch where blocks cannot be shared).
    const uint64_t copies = options_.buildPatch != 0 ? 2 : 1;
    for (const localrelay::Download& d : downloads_) needed += copies * d.size - ResumableBytes(packages_, d);
    for (const Group& group : groups) {
        struct stat info {};
        if (!group.downloads.empty() &&
            ::fstatat(packages_, MergedArchiveName(group.identity).c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            needed += uint64_t(info.st_size);
    }
    struct statvfs space {};
    if (::fstatvfs(packages_, &space) != 0) return kSuccess;  // unknown: the writes will tell
    const uint64_t available = uint64_t(space.f_bavail) * uint64_t(space.f_frsize);
    if (needed <= available) return kSuccess;
    constexpr uint64_t kMiB = 1 << 20;
    return Fail(kNoSpace, "no space left (needs " + std::to_string((needed + kMiB - 1) / kMiB) + " MiB, " +
                              std::to_string(available / kMiB) + " MiB free)",
                "packages/");
}

}  // namespace

HeldState ReadHeldState(int root, int packages) {
    HeldState state{HeldCache::Read(root), Listing(packages), {}, {}, ReadVerification(root)};
    state.served = ReadServed(packages, state.packages.names(), state.cache);
    state.sourceCatalog = FormatSourceCatalog(state.served);
    return state;
}

ZOVRELAY_Status Mirror(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, std::vector<std::string>& leaving, HeldState& state,
                       bool& exact, RunLog* log, Alternates* alternates) {
    Plan plan;
    ZOVRELAY_Status status = MakePlan(source.catalog, products, count, plan);
    if (status <= 0) return status;

    Mirrorer mirrorer(repository, options, events, source, log, alternates, state);
    status = mirrorer.Run(plan);
    leaving = mirrorer.leaving();
    exact = mirrorer.servedExact();
    if (status <= 0) return status;

    for (const auto& [index, wanted] : plan.perProduct) {
        const Product& product = source.catalog.products[index];
        ListedProduct item;
        item.entity = EntityOf(product.identity, product.version);
        for (size_t w : wanted) {
            const Component& component = *plan.wanted[w].component;
            const auto held = mirrorer.held().find(component.identity);
            if (IsBlacklisted(options, component.PackagePath()) || held == mirrorer.held().end() ||
                held->second.Find(component.version) == nullptr)
                continue;
            item.components.push_back(EntityOf(component.identity, component.version));
        }
        result.push_back(std::move(item));
    }
    return kSuccess;
}

}  // namespace localrelay
