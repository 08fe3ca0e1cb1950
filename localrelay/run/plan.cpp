#include "run/plan.h"
#include "base/failure.h"
#include "base/status.h"
#include "transfer/transfer.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>
#include <tuple>

namespace localrelay {
namespace {

// Builds a Selection one (product, component) pair at a time, each in logarithmic time.
class Selector {
public:
    Selector(const Catalog& catalog, Selection& selection)
        : catalog_(catalog), selection_(selection), index_(catalog), position_(index_.size(), kNotSelected),
          versionAdded_(catalog.components.size(), false) {}

    const ComponentIndex& index() const { return index_; }

    void Add(size_t productIndex, const Component* component) {
        const Product& product = catalog_.products[productIndex];
        const size_t ordinal = index_.Find(component->identity);
        if (position_[ordinal] == kNotSelected) {
            position_[ordinal] = selection_.components.size();
            selection_.components.push_back(Selected{component->identity, {}, {}, {}});
        }
        const size_t s = position_[ordinal];
        Selected& selected = selection_.components[s];
        const bool every = component == index_.Newest(ordinal);
        AddVersion(s, component);
        if (every && selected.every.empty()) {
            selected.every.push_back(component);
            for (auto older = index_.begin(ordinal); older != index_.end(ordinal); ++older)
                if (*older != component) selected.every.push_back(*older), AddVersion(s, *older);
        }
        const Component* only = every ? nullptr : component;
        // Products listed twice at one version are one product.
        const size_t key = canonical_.emplace(std::make_pair(product.identity, product.version), productIndex).first->second;
        if (claimed_.emplace(s, key, only).second) selected.claims.push_back(Claim{productIndex, only});
        if (listed_.emplace(productIndex, s, only).second) selection_.products[productIndex].emplace_back(s, only);
    }

private:
    // A catalog entry belongs to one selected component: a flag per entry tells whether it was added.
    void AddVersion(size_t s, const Component* component) {
        const size_t entry = size_t(component - catalog_.components.data());
        if (!versionAdded_[entry]) versionAdded_[entry] = true, selection_.components[s].versions.push_back(component);
    }

    const Catalog& catalog_;
    Selection& selection_;
    static constexpr size_t kNotSelected = SIZE_MAX;
    ComponentIndex index_;
    std::vector<size_t> position_;  // per identity of the index: its entry in the selection
    std::vector<bool> versionAdded_;  // per catalog entry
    std::map<std::pair<Identity, Version>, size_t> canonical_;
    std::set<std::tuple<size_t, size_t, const Component*>> claimed_, listed_;
};

bool Excluded(const Options& options, const Component& component) { return IsBlacklisted(options, component.PackagePath()); }

void SortNewestFirst(std::vector<HeldVersion>& versions) {
    std::sort(versions.begin(), versions.end(),
              [](const HeldVersion& a, const HeldVersion& b) { return b.version < a.version; });
}

template <class T>
bool Contains(const std::vector<T>& items, const T& item) {
    return std::find(items.begin(), items.end(), item) != items.end();
}

// The versions the merged archive keeps: the held ones that verified and the wanted ones, newest
// first, as many as maxmerge allows.
std::vector<Version> Kept(const Selected& selected, const Manifest* held, const std::vector<Version>& damaged,
                          const Options& options) {
    std::vector<Version> kept;
    if (held != nullptr)
        for (const HeldVersion& version : held->versions)
            if (!Contains(damaged, version.version)) kept.push_back(version.version);
    for (const Component* component : selected.versions)
        if (!Excluded(options, *component)) kept.push_back(component->version);
    std::sort(kept.rbegin(), kept.rend());
    kept.erase(std::unique(kept.begin(), kept.end()), kept.end());
    if (kept.size() > options.VersionsKept()) kept.resize(options.VersionsKept());
    return kept;
}

Action Decide(const Component& component, const Manifest* held, const std::vector<Version>& damaged,
              const std::vector<Version>& kept, const Options& options) {
    if (Excluded(options, component)) return Action::kExcluded;
    if (!Contains(kept, component.version)) return Action::kSkip;
    const HeldVersion* version = held != nullptr ? held->Find(component.version) : nullptr;
    if (version != nullptr && Contains(damaged, component.version)) return Action::kHeal;
    if (version == nullptr || version->sha256 != component.sha256 || version->size != component.size)
        return Action::kDownload;
    return Action::kHeld;
}

uint64_t SaturatingAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// Per-version archives after the run, oldest first: those there now and those the run writes.
std::vector<std::pair<Version, std::string>> VersionArchivesAfter(const std::vector<VersionArchive>* present,
                                                                  const ComponentPlan& plan) {
    std::vector<std::pair<Version, std::string>> archives;
    if (present != nullptr)
        for (const VersionArchive& archive : *present) archives.emplace_back(archive.version, archive.name);
    for (const std::string& name : plan.versionArchives)
        for (const Component* component : plan.Downloads())
            if (VersionArchiveName(plan.identity, component->version) == name)
                archives.emplace_back(component->version, name);
    std::sort(archives.begin(), archives.end());
    archives.erase(std::unique(archives.begin(), archives.end()), archives.end());
    return archives;
}

ComponentPlan PlanComponent(const Catalog& catalog, const Selected& selected, const HeldView& view,
                            const Options& options) {
    ComponentPlan plan;
    plan.identity = selected.identity;
    const Manifest* held = view.Held(selected.identity);
    const auto damagedAt = view.damaged.find(selected.identity);
    if (damagedAt != view.damaged.end()) plan.damaged = damagedAt->second;
    plan.held = held != nullptr;
    const std::vector<Version> kept = Kept(selected, held, plan.damaged, options);
    for (const Component* component : selected.versions)
        plan.versions.push_back(PlannedVersion{component, Decide(*component, held, plan.damaged, kept, options)});

    // Damaged copies are not carried into a rewritten archive; what replaces them is downloaded.
    Manifest base;
    if (held != nullptr) base = *held;
    base.identity = selected.identity;
    base.versions.erase(std::remove_if(base.versions.begin(), base.versions.end(),
                                       [&](const HeldVersion& v) { return Contains(plan.damaged, v.version); }),
                        base.versions.end());
    const std::vector<const Component*> downloads = plan.Downloads();
    plan.next = NextManifest(catalog, selected, std::move(base), downloads, options);
    plan.settled = held != nullptr && downloads.empty() && plan.damaged.empty() && SameManifest(plan.next, *held);
    if (options.buildPatch != 0)
        for (const Component* component : downloads)
            if (plan.next.Find(component->version) != nullptr)
                plan.versionArchives.push_back(VersionArchiveName(plan.identity, component->version));
    if (options.keepCount > 0) {
        const auto present = view.versionArchives.find(plan.identity);
        const auto after = VersionArchivesAfter(present != view.versionArchives.end() ? &present->second : nullptr, plan);
        for (size_t i = 0; i + size_t(options.keepCount) < after.size(); ++i) plan.pruned.push_back(after[i].second);
    }
    return plan;
}

// Per-version archives whose bytes differ from the manifest their merged archive has after the
// run are written again from it (or removed when that fails).
void PlanHeals(const HeldView& view, Plan& plan) {
    std::map<Identity, const ComponentPlan*> planned;
    for (const ComponentPlan& component : plan.components) planned[component.identity] = &component;
    for (const auto& [identity, archives] : view.versionArchives) {
        const auto at = planned.find(identity);
        const ComponentPlan* component = at != planned.end() ? at->second : nullptr;
        const Manifest* manifest =
            component != nullptr && !component->settled && !component->next.versions.empty() ? &component->next
                                                                                             : view.Held(identity);
        for (const VersionArchive& archive : archives) {
            const HeldVersion* held = manifest != nullptr ? manifest->Find(archive.version) : nullptr;
            const bool rewritten = component != nullptr && Contains(component->versionArchives, archive.name);
            if (held == nullptr || rewritten || !archive.sha256) continue;
            if (archive.size != held->size || *archive.sha256 != held->sha256) plan.healedArchives.push_back(archive.name);
        }
    }
}

// packages/ after the run, but the merged archives: what the module's clean-up looks at.
void PlanFiles(const HeldView& view, Plan& plan) {
    plan.files = view.files;
    for (const auto& [identity, archives] : view.versionArchives)
        for (const VersionArchive& archive : archives) plan.files[archive.name] = archive.size;
    for (const ComponentPlan& component : plan.components) {
        for (const std::string& name : component.versionArchives)
            for (const Component* download : component.Downloads())
                if (VersionArchiveName(component.identity, download->version) == name) plan.files[name] = download->size;
        for (const std::string& name : component.pruned) plan.files.erase(name);
    }
}

}  // namespace

const char* ActionName(Action action) {
    switch (action) {
        case Action::kHeld: return "held";
        case Action::kDownload: return "download";
        case Action::kHeal: return "heal";
        case Action::kSkip: return "skip";
        case Action::kExcluded: return "excluded";
    }
    return "held";
}

ZOVRELAY_Status Select(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count, Selection& selection) {
    Selector selector(catalog, selection);
    for (size_t r = 0; r < count; ++r) {
        std::vector<const Product*> matched;
        const ZOVRELAY_Status status = SelectProducts(catalog, &products[r], 1, matched);
        if (status <= 0) return status;
        if (products[r].componentCount == 0) {
            for (const Product* product : matched)
                for (const Identity& identity : product->components)
                    selector.Add(size_t(product - catalog.products.data()), FindComponent(selector.index(), identity, Version{}));
            continue;
        }
        std::vector<std::set<Identity>> contents;  // of each matched product
        for (const Product* product : matched) contents.emplace_back(product->components.begin(), product->components.end());
        for (size_t c = 0; c < products[r].componentCount; ++c) {
            const ZOVRELAY_EntityItem& requested = products[r].components[c];
            const Component* component = FindComponent(selector.index(), IdentityOf(requested), VersionOf(requested));
            bool found = false;
            for (size_t m = 0; component != nullptr && m < matched.size(); ++m) {
                if (contents[m].count(IdentityOf(requested)) == 0) continue;
                selector.Add(size_t(matched[m] - catalog.products.data()), component);
                found = true;
            }
            if (!found) return Fail(kNotFound, "not found", "component " + FormatIdentity(IdentityOf(requested)));
        }
    }
    return kSuccess;
}

const Manifest* HeldView::Held(const Identity& identity) const {
    if (served == nullptr || unreadable.count(identity) != 0) return nullptr;
    const auto at = served->find(identity);
    return at != served->end() ? &at->second.manifest : nullptr;
}

std::vector<const Component*> ComponentPlan::Downloads() const {
    std::vector<const Component*> downloads;
    for (const PlannedVersion& version : versions)
        if (version.action == Action::kDownload || version.action == Action::kHeal) downloads.push_back(version.component);
    return downloads;
}

bool ComponentPlan::Heals(const Version& version) const {
    return std::any_of(versions.begin(), versions.end(), [&](const PlannedVersion& v) {
        return v.action == Action::kHeal && v.component->version == version;
    });
}

Plan MakePlan(const Catalog& catalog, const Selection& selection, const HeldView& view, const Options& options) {
    Plan plan;
    plan.damaged = view.damaged;
    plan.unreadable = view.unreadable;
    plan.components.reserve(selection.components.size());
    for (const Selected& selected : selection.components) {
        plan.components.push_back(PlanComponent(catalog, selected, view, options));
        for (const PlannedVersion& version : plan.components.back().versions) {
            if (version.action == Action::kDownload || version.action == Action::kHeal)
                plan.bytes = SaturatingAdd(plan.bytes, version.component->size);
            if (version.action == Action::kHeld) ++plan.held;
        }
    }
    PlanHeals(view, plan);
    PlanFiles(view, plan);
    return plan;
}

Manifest NextManifest(const Catalog& catalog, const Selected& selected, Manifest next,
                      const std::vector<const Component*>& stored, const Options& options) {
    for (const Component* component : stored) {
        next.versions.erase(std::remove_if(next.versions.begin(), next.versions.end(),
                                           [&](const HeldVersion& h) { return h.version == component->version; }),
                            next.versions.end());
        next.versions.push_back(HeldVersion{component->version, component->PackagePath(), component->size, component->sha256});
    }
    next.section = selected.versions.front()->section;
    SortNewestFirst(next.versions);
    if (next.versions.size() > options.VersionsKept()) next.versions.resize(options.VersionsKept());
    const bool anyKept = std::any_of(selected.versions.begin(), selected.versions.end(), [&](const Component* c) {
        return !Excluded(options, *c) && next.Find(c->version) != nullptr;
    });
    for (const Claim& claim : selected.claims) {
        const bool contains = claim.only == nullptr
                                  ? anyKept
                                  : !Excluded(options, *claim.only) && next.Find(claim.only->version) != nullptr;
        if (!contains) continue;
        const Product& product = catalog.products[claim.product];
        auto same = std::find_if(next.products.begin(), next.products.end(),
                                 [&](const ProductRef& p) { return p.identity == product.identity; });
        if (same == next.products.end()) next.products.push_back(ProductRef{product.identity, product.version});
        else if (same->version < product.version) same->version = product.version;
    }
    std::sort(next.products.begin(), next.products.end(),
              [](const ProductRef& a, const ProductRef& b) { return a.identity < b.identity; });
    return next;
}

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

std::vector<ListedProduct> HeldProducts(const Catalog& catalog, const Selection& selection, const Options& options,
                                        const std::map<Identity, Manifest>& held) {
    std::vector<ListedProduct> result;
    for (const auto& [index, named] : selection.products) {
        const Product& product = catalog.products[index];
        ListedProduct item;
        item.entity = EntityOf(product.identity, product.version);
        std::set<const Component*> listed;
        for (const auto& [s, only] : named) {
            const Selected& selected = selection.components[s];
            const auto manifest = held.find(selected.identity);
            for (const Component* component : only != nullptr ? std::vector<const Component*>{only} : selected.every) {
                if (Excluded(options, *component) || manifest == held.end() ||
                    manifest->second.Find(component->version) == nullptr || !listed.insert(component).second)
                    continue;
                item.components.push_back(EntityOf(component->identity, component->version));
            }
        }
        result.push_back(std::move(item));
    }
    return result;
}

namespace {
// The source's address without its user information: the plan is shown to people.
std::string WithoutCredentials(const std::string& address) {
    const size_t scheme = address.find("://");
    if (scheme == std::string::npos) return address;
    const size_t host = scheme + 3, end = address.find('/', host), at = address.rfind('@', end);
    return at == std::string::npos || at < host ? address : address.substr(0, host) + address.substr(at + 1);
}
}  // namespace

std::string FormatPlan(const Plan& plan, const std::string& source) {
    using nlohmann::json;
    constexpr auto kReplace = json::error_handler_t::replace;
    json damaged = json::array();
    for (const auto& [identity, versions] : plan.damaged) {
        json texts = json::array();
        for (const Version& version : versions) texts.push_back(FormatVersion(version));
        damaged.push_back({{"identity", FormatIdentity(identity)}, {"versions", std::move(texts)}});
    }
    json unreadable = json::array();
    for (const Identity& identity : plan.unreadable) unreadable.push_back(FormatIdentity(identity));
    json files = json::object();
    for (const auto& [name, size] : plan.files) files[name] = size;
    const json document = {{"source", WithoutCredentials(source)}, {"bytes", plan.bytes}, {"held", plan.held},
                           {"components", json::array()}, {"healed_archives", plan.healedArchives},
                           {"files", std::move(files)}, {"damaged", std::move(damaged)},
                           {"unreadable", std::move(unreadable)}};
    std::string text = document.dump(-1, ' ', false, kReplace);
    // The components are dumped one at a time into their place: the keys are sorted, so it follows
    // "bytes" (a number). As one document, a plan of 350,000 components took 1.9 GB and most of a
    // dry run's time in allocating and freeing it.
    std::string components = "[";
    for (const ComponentPlan& component : plan.components) {
        json versions = json::array();
        for (const PlannedVersion& version : component.versions) {
            const Component& c = *version.component;
            versions.push_back({{"version", FormatVersion(c.version)}, {"action", ActionName(version.action)},
                                {"path", c.PackagePath()}, {"size", c.size}, {"sha256", c.sha256}});
        }
        json kept = json::array();
        for (const HeldVersion& held : component.next.versions) kept.push_back(FormatVersion(held.version));
        const json entry = {{"identity", FormatIdentity(component.identity)}, {"versions", std::move(versions)},
                            {"held", component.held}, {"rewrite", !component.settled && !component.next.versions.empty()},
                            {"kept", std::move(kept)}, {"version_archives", component.versionArchives},
                            {"pruned", component.pruned}};
        if (components.size() > 1) components += ',';
        components += entry.dump(-1, ' ', false, kReplace);
    }
    components += ']';
    constexpr std::string_view kPlace = "\"components\":[]";
    const size_t at = text.find(kPlace);
    if (at != std::string::npos) text.replace(at + kPlace.size() - 2, 2, components);
    return text;
}

}  // namespace localrelay
