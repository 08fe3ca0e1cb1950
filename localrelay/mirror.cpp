#include "mirror.h"
#include "failure.h"
#include "files.h"
#include "listing.h"
#include "package.h"
#include "repository.h"
#include "status.h"

#include "verification.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>

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
};

void AddWanted(Plan& plan, const Catalog& catalog, const Product& product, const Component* component) {
    size_t index = 0;
    while (index < plan.wanted.size() && plan.wanted[index].component != component) ++index;
    if (index == plan.wanted.size()) plan.wanted.push_back(Wanted{component, {}});
    std::vector<ProductRef>& products = plan.wanted[index].products;
    if (std::none_of(products.begin(), products.end(), [&](const ProductRef& p) {
            return p.identity == product.identity && p.version == product.version;
        }))
        products.push_back(ProductRef{product.identity, product.version});
    std::vector<size_t>& list = plan.perProduct[size_t(&product - catalog.products.data())];
    if (std::find(list.begin(), list.end(), index) == list.end()) list.push_back(index);
}

// A component named at its newest catalog version brings the catalog's older versions along: a
// mirror keeps what its source keeps (as many as maxmerge allows), so a chain of repositories
// passes every held version on, not only the newest.
void AddWithOlder(Plan& plan, const Catalog& catalog, const Product& product, const Component* component) {
    AddWanted(plan, catalog, product, component);
    if (component != FindComponent(catalog, component->identity, Version{})) return;
    for (const Component& older : catalog.components)
        if (older.identity == component->identity && &older != component) AddWanted(plan, catalog, product, &older);
}

// Fails (kNotFound) before anything is downloaded when any part of the request names nothing.
ZOVRELAY_Status MakePlan(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count, Plan& plan) {
    for (size_t r = 0; r < count; ++r) {
        std::vector<const Product*> matched;
        const ZOVRELAY_Status status = SelectProducts(catalog, &products[r], 1, matched);
        if (status <= 0) return status;
        if (products[r].componentCount == 0) {
            for (const Product* product : matched)
                for (const Identity& identity : product->components)
                    AddWithOlder(plan, catalog, *product, FindComponent(catalog, identity, Version{}));
            continue;
        }
        for (size_t c = 0; c < products[r].componentCount; ++c) {
            const ZOVRELAY_EntityItem& requested = products[r].components[c];
            bool found = false;
            for (const Product* product : matched) {
                const std::vector<Identity>& list = product->components;
                if (std::find(list.begin(), list.end(), IdentityOf(requested)) == list.end()) continue;
                const Component* component = FindComponent(catalog, IdentityOf(requested), VersionOf(requested));
                if (component == nullptr) continue;
                AddWithOlder(plan, catalog, *product, component);
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

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void SortNewestFirst(std::vector<HeldVersion>& versions) {
    std::sort(versions.begin(), versions.end(),
              [](const HeldVersion& a, const HeldVersion& b) { return b.version < a.version; });
}

class Mirrorer {
public:
    Mirrorer(const Repository& repository, const Options& options, const Events& events, const LoadedSource& source,
             RunLog* log)
        : log_(log), root_(repository.directory.get()), packages_(repository.packages.get()),
          packagesPath_(repository.path + "/packages"), options_(options), events_(events), source_(source),
          verified_(ReadVerification(root_)), now_(int64_t(std::time(nullptr))) {}

    ZOVRELAY_Status Run(const Plan& plan);
    const std::map<Identity, Manifest>& held() const { return final_; }
    const std::vector<std::string>& leaving() const { return leaving_; }

private:
    struct Group {
        Identity identity;
        std::vector<const Wanted*> wanted;
        std::vector<const Component*> downloads;
        std::vector<Version> damaged;  // held versions that no longer verify: the archive is rewritten
        std::vector<const Component*> skipped;  // older than the versions kept
    };

    // The component's merged archive; nullptr when there is none we can trust, which is then replaced.
    std::unique_ptr<MergedArchive> OpenMerged(const Identity& identity) const {
        std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages_, MergedArchiveName(identity));
        return archive != nullptr && archive->manifest().identity == identity ? std::move(archive) : nullptr;
    }
    void Note(ZOVRELAY_Status status) {
        if (failure_ > 0) failure_ = status;
    }
    bool Blacklisted(const Component& component) const { return IsBlacklisted(options_, component.PackagePath()); }
    void Decide(Group& group);
    ZOVRELAY_Status Download(const Component& component, std::unique_ptr<PackageSink>& sink, std::string& reason);
    PackageOutcome Outcome(const Component& component, const char* action) const {
        return PackageOutcome{component.PackagePath(), FormatIdentity(component.identity),
                              FormatVersion(component.version), source_.address, action, component.size, 0, 0,
                              kSuccess, ""};
    }
    ZOVRELAY_Status Failed(PackageOutcome outcome, ZOVRELAY_Status status, std::string reason,
                           const std::string& object);
    ZOVRELAY_Status Store(const Group& group);
    ZOVRELAY_Status KeepVersionArchives(const Group& group, const Manifest& manifest,
                                        std::map<Version, std::unique_ptr<PackageSink>>& parts);
    void CheckVersionArchives();
    void Log(const Identity& identity, const HeldVersion& held, const char* action, ZOVRELAY_Status status) {
        if (log_ != nullptr)
            log_->packages.push_back(PackageOutcome{held.path, FormatIdentity(identity), FormatVersion(held.version),
                                                    source_.address, action, held.size, 0, 0, status, {}});
    }

    RunLog* log_;
    int root_, packages_;
    std::string packagesPath_;
    const Options& options_;
    const Events& events_;
    const LoadedSource& source_;
    std::optional<Catalog> reloaded_;  // the source's catalog read again after a byte range failed
    bool reloadTried_ = false;
    VerificationRecord verified_;
    int64_t now_;
    std::map<Identity, Manifest> final_;
    ServedCatalog served_;  // what source.ini says now
    std::vector<std::string> leaving_;
    ZOVRELAY_Status failure_ = kSuccess;
};

// What to download: the wanted versions that will be among the newest kept and that the merged
// archive does not hold with the same digest. An older version would be dropped again at once.
// An archive that changed since it was last read back in full, or was not read for a week, is
// verified now: a version that fails counts as not held, so it is downloaded again (healed).
void Mirrorer::Decide(Group& group) {
    const std::unique_ptr<MergedArchive> archive = OpenMerged(group.identity);
    std::vector<Version> candidates;
    std::vector<Version>& damaged = group.damaged;
    if (archive != nullptr) {
        const std::string name = MergedArchiveName(group.identity);
        const bool verify = NeedsVerification(verified_, name, archive->file(), now_);
        for (const HeldVersion& held : archive->manifest().versions) {
            if (verify && archive->Verify(held) <= 0) {
                damaged.push_back(held.version);
                continue;
            }
            candidates.push_back(held.version);
        }
        if (verify && damaged.empty()) verified_[name] = Verified{archive->file(), now_};
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
        const HeldVersion* held = archive != nullptr ? archive->manifest().Find(component.version) : nullptr;
        const bool broken = std::find(damaged.begin(), damaged.end(), component.version) != damaged.end();
        if (held == nullptr || broken || held->sha256 != component.sha256 || held->size != component.size)
            group.downloads.push_back(&component);
    }
}

// Fetches one package into its part file. A byte range of a repository source that does not
// match its catalog means the source replaced that archive since we read its catalog: the
// catalog is read again, once per run, and the range it names now is tried instead.
ZOVRELAY_Status Mirrorer::Download(const Component& component, std::unique_ptr<PackageSink>& sink,
                                   std::string& reason) {
    const Component* attempt = &component;
    for (int round = 0;; ++round) {
        sink = std::make_unique<PackageSink>(packages_, PartName(component.identity, component.version),
                                             component.size, events_, component.PackagePath());
        TransferSettings settings = source_.settings;
        if (attempt->offset != 0) {
            settings.offset = attempt->offset;
            settings.length = attempt->size;
        }
        ZOVRELAY_Status status = sink->Open();
        reason.clear();
        if (status > 0) status = Fetch(JoinAddress(source_.address, attempt->path), settings, *sink, &reason);
        if (status > 0) status = sink->Finish(component.sha256);
        if (status <= 0 && reason.empty()) reason = sink->stopReason;
        if (status != kIntegrityFailed || attempt->offset == 0 || round > 0) return status;
        if (!reloadTried_) {
            reloadTried_ = true;
            reloaded_ = ReloadCatalog(source_);
        }
        attempt = nullptr;
        if (reloaded_)
            for (const Component& fresh : reloaded_->components)
                if (fresh.identity == component.identity && fresh.version == component.version &&
                    fresh.sha256 == component.sha256 && fresh.size == component.size)
                    attempt = &fresh;
        if (attempt == nullptr) return status;
        sink.reset();
    }
}

// A package that failed is reported as it happens, by a "downloadend" whose `finished` (the bytes
// verified, 0) differs from `total` and whose information is "<path>: <reason>", and goes into the
// run log. The run goes on unless the failure stops it; the first failure is the run's status.
ZOVRELAY_Status Mirrorer::Failed(PackageOutcome outcome, ZOVRELAY_Status status, std::string reason,
                                 const std::string& object) {
    if (reason.empty()) reason = StatusText(status);
    outcome.status = status;
    outcome.reason = reason;
    if (log_ != nullptr) log_->packages.push_back(outcome);
    if (status == kCancelled) return status;
    // The event first: a handler may run relay calls of its own, which settle the thread's record.
    if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, outcome.path + ": " + reason, outcome.size, 0)) return kCancelled;
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

    // Downloads go to hidden temporaries, checked before anything else sees them.
    std::map<Version, std::unique_ptr<PackageSink>> parts;
    std::map<Version, std::string> files;
    for (const Component* component : group.downloads) {
        if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADBEGIN, component->PackagePath(), component->size, 0))
            return kCancelled;
        std::unique_ptr<PackageSink> sink;
        std::string reason;
        const auto started = std::chrono::steady_clock::now();
        ZOVRELAY_Status status = Download(*component, sink, reason);
        const bool heal = std::find(group.damaged.begin(), group.damaged.end(), component->version) != group.damaged.end();
        PackageOutcome outcome = Outcome(*component, heal ? "heal" : "download");
        outcome.bytes = sink != nullptr ? sink->received() : 0;
        outcome.seconds = SecondsSince(started);
        if (status <= 0) {
            const std::string part = "packages/" + PartName(identity, component->version);
            status = Failed(outcome, status, reason, RepositoryFailure(status) ? part : component->PackagePath());
            if (status <= 0) return status;
            continue;
        }
        if (log_ != nullptr) log_->packages.push_back(outcome);
        if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOADEND, component->PackagePath(), component->size, component->size))
            return kCancelled;
        files[component->version] = sink->name();
        parts[component->version] = std::move(sink);
    }

    Manifest next = manifest;
    next.section = group.wanted.front()->component->section;  // as the source lists it now
    for (const Component* component : group.downloads) {
        if (files.count(component->version) == 0) continue;
        next.versions.erase(std::remove_if(next.versions.begin(), next.versions.end(),
                                           [&](const HeldVersion& h) { return h.version == component->version; }),
                            next.versions.end());
        next.versions.push_back(
            HeldVersion{component->version, component->PackagePath(), component->size, component->sha256});
    }
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

    if (!next.versions.empty() && (previous == nullptr || FormatManifest(next) != FormatManifest(manifest) ||
                                   !files.empty() || !group.damaged.empty())) {
        // Copies of versions that no longer verify would fail the new archive's own check:
        // leave them out, so a damaged repository heals on the next run.
        for (auto held = next.versions.begin(); held != next.versions.end();) {
            if (files.count(held->version) != 0 || (previous != nullptr && previous->Verify(*held) > 0)) {
                ++held;
                continue;
            }
            const bool wanted = std::any_of(group.wanted.begin(), group.wanted.end(),
                                            [&](const Wanted* w) { return w->component->version == held->version; });
            if (wanted) {
                PackageOutcome outcome{held->path, FormatIdentity(identity), FormatVersion(held->version), "",
                                       "verify", held->size, 0, 0, kSuccess, ""};
                const ZOVRELAY_Status status =
                    Failed(outcome, kIntegrityFailed, "held copy failed its check; dropped", held->path);
                if (status <= 0) return status;
            }
            held = next.versions.erase(held);
        }
        if (next.versions.empty()) return kSuccess;
        TemporaryFile temporary;
        ZOVRELAY_Status status = temporary.Create(packages_, TemporaryPrefix(merged), kTemporarySuffix);
        if (status > 0) status = WriteMergedArchive(packages_, temporary.fd(), temporary.name(), next, files, previous.get());
        // source.ini must never name a range of the archive being replaced: it stops listing the
        // component first, and lists its new ranges once the new archive is in place.
        if (status > 0 && served_.erase(identity) != 0)
            status = WriteWholeFileAt(root_, kSourceCatalogName, FormatSourceCatalog(served_));
        if (status > 0) {
            previous.reset();
            status = temporary.ReplaceInto(merged);
        }
        if (status > 0) {
            served_[identity] = Served(packages_, next);
            status = WriteWholeFileAt(root_, kSourceCatalogName, FormatSourceCatalog(served_));
        }
        if (status <= 0) {
            // libzip leaves the failing write's errno: a full disk is worth saying so.
            const Failure cause = FromErrno(errno);
            if (status == kIoError && RepositoryFailure(cause.status)) status = cause.status;
            const std::string reason = status == cause.status ? cause.reason : "cannot write";
            if (failure_ > 0 || StopsTheRun(status)) Fail(status, reason, "packages/" + merged);
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
        // Every entry was read back before the rename: the archive is verified as it is now.
        if (const std::unique_ptr<MergedArchive> written = OpenMerged(identity))
            verified_[merged] = Verified{written->file(), now_};
    }
    final_[identity] = next;
    return KeepVersionArchives(group, next, parts);
}

// Per-version archives are made only for versions this run downloaded: a version held already is
// served from its merged archive, and rebuilding the copies the module's clean-up deletes would
// write and delete the same files every night. Pruning beyond keepcount happens after the index
// stops naming the files (see Mirror's caller).
ZOVRELAY_Status Mirrorer::KeepVersionArchives(const Group& group, const Manifest& manifest,
                                              std::map<Version, std::unique_ptr<PackageSink>>& parts) {
    if (options_.buildPatch != 0) {
        for (auto& [version, part] : parts) {
            if (manifest.Find(version) == nullptr) continue;
            const std::string target = VersionArchiveName(group.identity, version);
            struct stat info {};
            // Republished (or healed) bytes replace a file the index may name: it stops naming it first.
            if (::fstatat(packages_, target.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
                WriteCatalogs(root_, packages_, ReadHeld(packages_), {target});
            const ZOVRELAY_Status status = ReplaceAt(packages_, part->name(), target);
            if (status > 0) part->Release();
            if (StopsTheRun(status)) return status;
            if (status <= 0) Note(status);
        }
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
void Mirrorer::CheckVersionArchives() {
    for (const auto& [identity, archives] : AllVersionArchives(packages_)) {
        const auto served = served_.find(identity);
        std::unique_ptr<MergedArchive> merged;
        for (const auto& [version, name] : archives) {
            const HeldVersion* held = served != served_.end() ? served->second.manifest.Find(version) : nullptr;
            const FileDescriptor fd(OpenFileAt(packages_, name));
            const std::optional<FileIdentity> file = fd.get() >= 0 ? FileIdentityOf(fd.get()) : std::nullopt;
            if (held == nullptr || !file || !NeedsVerification(verified_, name, *file, now_)) continue;
            if (FileMatches(fd.get(), held->size, held->sha256)) {
                verified_[name] = Verified{*file, now_};
                continue;
            }
            if (merged == nullptr) merged = OpenMerged(identity);
            const ZOVRELAY_Status status =
                merged != nullptr ? ExtractInto(*merged, *held, packages_, TemporaryPrefix(name), kTemporarySuffix, name)
                                  : kIntegrityFailed;
            if (status <= 0) RemoveAt(packages_, name);
            Log(identity, *held, "heal", status);
        }
    }
}

ZOVRELAY_Status Mirrorer::Run(const Plan& plan) {
    std::vector<Group> groups;
    for (const Wanted& wanted : plan.wanted) {
        const Identity& identity = wanted.component->identity;
        auto group = std::find_if(groups.begin(), groups.end(), [&](const Group& g) { return g.identity == identity; });
        if (group == groups.end()) group = groups.insert(groups.end(), Group{identity, {}, {}, {}, {}});
        group->wanted.push_back(&wanted);
    }
    served_ = ServedOf(packages_, ReadHeld(packages_));
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
            const bool skipped = std::find(skip.begin(), skip.end(), &component) != skip.end();
            log_->packages.push_back(Outcome(component, skipped ? "skip" : "held"));
        }
    }
    if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOAD, source_.address, planned, 0)) return kCancelled;
    ZOVRELAY_Status status = kSuccess;
    for (const Group& group : groups) {
        status = Store(group);
        if (status <= 0) break;
    }
    if (status > 0) CheckVersionArchives();
    // Archives gone since they were recorded need no record.
    for (auto record = verified_.begin(); record != verified_.end();) {
        struct stat info {};
        if (::fstatat(packages_, record->first.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) record = verified_.erase(record);
        else ++record;
    }
    WriteVerification(root_, verified_);  // without it the next run verifies again: no harm
    return status <= 0 ? status : failure_;
}

}  // namespace

ZOVRELAY_Status Mirror(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, std::vector<std::string>& leaving, RunLog* log) {
    Plan plan;
    ZOVRELAY_Status status = MakePlan(source.catalog, products, count, plan);
    if (status <= 0) return status;

    Mirrorer mirrorer(repository, options, events, source, log);
    status = mirrorer.Run(plan);
    leaving = mirrorer.leaving();
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
