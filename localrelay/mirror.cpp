#include "mirror.h"
#include "downloader.h"
#include "files.h"
#include "listing.h"
#include "package.h"
#include "repository.h"
#include "status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
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
                    AddWanted(plan, catalog, *product, FindComponent(index, identity, Version{}));
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
                AddWanted(plan, catalog, *product, component);
                found = true;
            }
            if (!found) return kNotFound;
        }
    }
    return kSuccess;
}

// Failures of one package leave the rest of the run going; these stop it at once.
bool StopsTheRun(ZOVRELAY_Status status) {
    return status == kCancelled || status == kIoError || status == kOutOfMemory || status == kRepositoryNotAccessible ||
           status == kNoSpace;
}

void SortNewestFirst(std::vector<HeldVersion>& versions) {
    std::sort(versions.begin(), versions.end(),
              [](const HeldVersion& a, const HeldVersion& b) { return b.version < a.version; });
}

class Mirrorer {
public:
    Mirrorer(const std::string& repository, const Options& options, const Events& events, const LoadedSource& source,
             Alternates* alternates)
        : repository_(repository), packages_(repository + "/packages"), options_(options), events_(events),
          source_(source), alternates_(alternates) {}
    ~Mirrorer() {
        if (directory_ >= 0) ::close(directory_);
    }

    ZOVRELAY_Status Run(const Plan& plan);
    const std::map<Identity, Manifest>& held() const { return final_; }

private:
    struct Group {
        Identity identity;
        std::vector<const Wanted*> wanted;
        std::vector<const Component*> downloads;
    };

    std::string Packages(const std::string& name) const { return packages_ + "/" + name; }
    // The component's merged archive; nullptr when there is none we can trust, which is then replaced.
    std::unique_ptr<MergedArchive> OpenMerged(const Identity& identity) const {
        std::unique_ptr<MergedArchive> archive = MergedArchive::Open(Packages(MergedArchiveName(identity)));
        return archive != nullptr && archive->manifest().identity == identity ? std::move(archive) : nullptr;
    }
    void Note(ZOVRELAY_Status status) {
        if (failure_ > 0) failure_ = status;
    }
    bool Blacklisted(const Component& component) const { return IsBlacklisted(options_, component.path); }
    void Decide(Group& group) const;
    ZOVRELAY_Status Download(const std::vector<Group>& groups);
    ZOVRELAY_Status CheckSpace(const std::vector<Group>& groups) const;
    ZOVRELAY_Status Store(const Group& group);
    ZOVRELAY_Status KeepVersionArchives(const Group& group, const Manifest& manifest,
                                        std::map<Version, std::unique_ptr<TemporaryFile>>& parts);

    std::string repository_, packages_;
    const Options& options_;
    const Events& events_;
    const LoadedSource& source_;
    Alternates* alternates_;
    std::map<Identity, Manifest> final_;
    ZOVRELAY_Status failure_ = kSuccess;
    int directory_ = -1;  // packages/
    std::vector<localrelay::Download> downloads_;
    std::map<const Component*, const localrelay::Download*> downloaded_;  // verified parts
};

// What to download: the wanted versions that will be among the newest kept and that the merged
// archive does not hold with the same digest. An older version would be dropped again at once.
void Mirrorer::Decide(Group& group) const {
    const std::unique_ptr<MergedArchive> archive = OpenMerged(group.identity);
    std::vector<Version> candidates;
    if (archive != nullptr)
        for (const HeldVersion& held : archive->manifest().versions) candidates.push_back(held.version);
    for (const Wanted* wanted : group.wanted)
        if (!Blacklisted(*wanted->component)) candidates.push_back(wanted->component->version);
    std::sort(candidates.rbegin(), candidates.rend());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    if (candidates.size() > options_.VersionsKept()) candidates.resize(options_.VersionsKept());

    for (const Wanted* wanted : group.wanted) {
        const Component& component = *wanted->component;
        if (Blacklisted(component) ||
            std::find(candidates.begin(), candidates.end(), component.version) == candidates.end())
            continue;
        const HeldVersion* held = archive != nullptr ? archive->manifest().Find(component.version) : nullptr;
        if (held == nullptr || held->sha256 != component.sha256 || held->size != component.size)
            group.downloads.push_back(&component);
    }
}

ZOVRELAY_Status Mirrorer::Store(const Group& group) {
    const Identity& identity = group.identity;
    const std::string merged = Packages(MergedArchiveName(identity));
    std::unique_ptr<MergedArchive> previous = OpenMerged(identity);
    Manifest manifest;
    if (previous != nullptr) manifest = previous->manifest();
    manifest.identity = identity;

    // The verified downloads, in hidden part files that go unless kept.
    std::map<Version, std::unique_ptr<TemporaryFile>> parts;
    std::map<Version, std::string> files;
    for (const Component* component : group.downloads) {
        const auto done = downloaded_.find(component);
        if (done == downloaded_.end()) continue;
        files[component->version] = Packages(done->second->part);
        parts[component->version] = std::make_unique<TemporaryFile>(Packages(done->second->part));
    }

    Manifest next = manifest;
    next.section = group.wanted.front()->component->section;  // as the source lists it now
    for (const Component* component : group.downloads) {
        if (files.count(component->version) == 0) continue;
        next.versions.erase(std::remove_if(next.versions.begin(), next.versions.end(),
                                           [&](const HeldVersion& h) { return h.version == component->version; }),
                            next.versions.end());
        next.versions.push_back(HeldVersion{component->version, component->path, component->size, component->sha256});
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

    if (!next.versions.empty() && (previous == nullptr || FormatManifest(next) != FormatManifest(manifest))) {
        // Copies of versions that no longer verify would fail the new archive's own check:
        // leave them out, so a damaged repository heals on the next run.
        for (auto held = next.versions.begin(); held != next.versions.end();) {
            if (files.count(held->version) != 0 || (previous != nullptr && previous->Verify(*held) > 0)) {
                ++held;
                continue;
            }
            const bool wanted = std::any_of(group.wanted.begin(), group.wanted.end(),
                                            [&](const Wanted* w) { return w->component->version == held->version; });
            if (wanted) Note(kIntegrityFailed);
            held = next.versions.erase(held);
        }
        if (next.versions.empty()) return kSuccess;
        TemporaryFile temporary(Packages(MergedTemporaryName(identity)));
        ZOVRELAY_Status status = WriteMergedArchive(temporary.path(), next, files, previous.get());
        if (status > 0) {
            previous.reset();
            status = ReplaceFile(temporary.path(), merged);
        }
        if (status <= 0) {
            if (StopsTheRun(status)) return status;
            Note(status);
            return kSuccess;
        }
        temporary.Release();
    }
    final_[identity] = next;
    return KeepVersionArchives(group, next, parts);
}

ZOVRELAY_Status Mirrorer::KeepVersionArchives(const Group& group, const Manifest& manifest,
                                              std::map<Version, std::unique_ptr<TemporaryFile>>& parts) {
    if (options_.buildPatch != 0) {
        std::unique_ptr<MergedArchive> merged;
        for (const Wanted* wanted : group.wanted) {
            const Version& version = wanted->component->version;
            const HeldVersion* held = manifest.Find(version);
            if (held == nullptr || Blacklisted(*wanted->component)) continue;
            const std::string target = Packages(VersionArchiveName(group.identity, version));
            ZOVRELAY_Status status = kSuccess;
            const auto part = parts.find(version);
            if (part != parts.end()) {
                status = ReplaceFile(part->second->path(), target);
                if (status > 0) part->second->Release();
            } else if (::access(target.c_str(), F_OK) != 0) {
                // Held already (the module's clean-up removes these copies): rebuild it locally.
                if (merged == nullptr) merged = OpenMerged(group.identity);
                status = merged == nullptr ? kIntegrityFailed
                                           : ExtractToFile(*merged, *held, Packages(PartName(group.identity, version)),
                                                           target);
            }
            if (StopsTheRun(status)) return status;
            if (status <= 0) Note(status);
        }
    }
    if (options_.keepCount > 0)
        return PruneVersionArchives(packages_, group.identity, size_t(options_.keepCount), events_);
    return kSuccess;
}

ZOVRELAY_Status Mirrorer::Run(const Plan& plan) {
    std::vector<Group> groups;
    std::map<Identity, size_t> groupOf;
    for (const Wanted& wanted : plan.wanted) {
        const Identity& identity = wanted.component->identity;
        const auto [at, added] = groupOf.emplace(identity, groups.size());
        if (added) groups.push_back(Group{identity, {}, {}});
        groups[at->second].wanted.push_back(&wanted);
    }
    uint64_t planned = 0;
    for (Group& group : groups) {
        Decide(group);
        for (const Component* component : group.downloads) planned += component->size;
    }
    if (!events_.Raise(ZOVRELAY_EVENT_DOWNLOAD, source_.address, planned, 0)) return kCancelled;
    ZOVRELAY_Status status = Download(groups);
    if (status <= 0) return status;
    // Parts of packages this run still wants stay for the next run to continue; others go.
    RemoveUnplannedParts(directory_, downloads_);
    return failure_;
}

// Every package the plan lacks, from one queue. A component's merged archive is written as soon
// as its last download ended, so that a run cut short keeps every component it completed.
ZOVRELAY_Status Mirrorer::Download(const std::vector<Group>& groups) {
    directory_ = ::open(packages_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory_ < 0) return kRepositoryNotAccessible;
    std::vector<const Component*> components;
    std::vector<size_t> groupOf, pending(groups.size());
    for (const Group& group : groups) {
        pending[size_t(&group - groups.data())] = group.downloads.size();
        for (const Component* component : group.downloads) {
            localrelay::Download d;
            d.information = component->path;
            d.address = JoinAddress(source_.address, component->path);
            d.settings = &source_.settings;
            d.offset = component->offset;
            d.size = component->size;
            d.sha256 = component->sha256;
            d.part = PartName(group.identity, component->version);
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
    std::vector<size_t> sourceOf(downloads_.size(), 0);
    std::vector<std::pair<size_t, localrelay::Download>> again;
    auto settle = [&](size_t i) -> ZOVRELAY_Status {
        localrelay::Download& d = downloads_[i];
        const LoadedSource* other = nullptr;
        const Component* listed = nullptr;
        if (d.status <= 0 && alternates_ != nullptr && alternates_->Find(*components[i], sourceOf[i], other, listed)) {
            localrelay::Download next = d;
            next.address = JoinAddress(other->address, listed->path);
            next.settings = &other->settings;
            next.offset = listed->offset;
            again.emplace_back(i, std::move(next));
            return kSuccess;
        }
        if (d.status > 0) downloaded_[components[i]] = &d;
        else Note(d.status);
        return --pending[groupOf[i]] == 0 ? Store(groups[groupOf[i]]) : kSuccess;
    };
    status = DownloadAll(downloads_, directory_, options_.maxBandwidth, events_,
                         [&](localrelay::Download& d) { return settle(size_t(&d - downloads_.data())); });
    while (status > 0 && !again.empty()) {
        std::vector<size_t> original;
        std::vector<localrelay::Download> round;
        for (auto& [i, d] : again) original.push_back(i), round.push_back(std::move(d));
        again.clear();
        status = DownloadAll(round, directory_, options_.maxBandwidth, events_, [&](localrelay::Download& d) {
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
    for (const localrelay::Download& d : downloads_) needed += 2 * d.size - ResumableBytes(directory_, d);
    for (const Group& group : groups) {
        struct stat info {};
        if (!group.downloads.empty() &&
            ::fstatat(directory_, MergedArchiveName(group.identity).c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            needed += uint64_t(info.st_size);
    }
    struct statvfs space {};
    if (::fstatvfs(directory_, &space) != 0) return kSuccess;  // unknown: the writes will tell
    const uint64_t available = uint64_t(space.f_bavail) * uint64_t(space.f_frsize);
    return needed <= available ? kSuccess : kNoSpace;
}

}  // namespace

ZOVRELAY_Status Mirror(const std::string& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, Alternates* alternates) {
    Plan plan;
    ZOVRELAY_Status status = MakePlan(source.catalog, products, count, plan);
    if (status <= 0) return status;

    Mirrorer mirrorer(repository, options, events, source, alternates);
    status = mirrorer.Run(plan);
    if (status <= 0) return status;

    for (const auto& [index, wanted] : plan.perProduct) {
        const Product& product = source.catalog.products[index];
        ListedProduct item;
        item.entity = EntityOf(product.identity, product.version);
        for (size_t w : wanted) {
            const Component& component = *plan.wanted[w].component;
            const auto held = mirrorer.held().find(component.identity);
            if (IsBlacklisted(options, component.path) || held == mirrorer.held().end() ||
                held->second.Find(component.version) == nullptr)
                continue;
            item.components.push_back(EntityOf(component.identity, component.version));
        }
        result.push_back(std::move(item));
    }
    return kSuccess;
}

}  // namespace localrelay
