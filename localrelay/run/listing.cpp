#include "run/listing.h"
#include "base/failure.h"
#include "base/status.h"

#include <algorithm>
#include <set>

namespace localrelay {
namespace {

bool FieldNames(int32_t requested, int32_t value) { return requested == -1 || requested == value; }

}  // namespace

bool VersionNames(const Version& requested, const Version& version) {
    // The revision is left out: identifier strings never show it, so scripts cannot name it.
    return requested.IsZero() ||
           (requested.major == version.major && requested.minor == version.minor && requested.build == version.build);
}

bool Names(const ZOVRELAY_EntityItem& requested, const Identity& identity, const Version& version) {
    return requested.klass == identity.klass && requested.type == identity.type &&
           FieldNames(requested.language, identity.language) && FieldNames(requested.platform, identity.platform) &&
           FieldNames(requested.region, identity.region) && FieldNames(requested.oem, identity.oem) &&
           VersionNames(VersionOf(requested), version);
}

ZOVRELAY_Status SelectProducts(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count,
                               std::vector<const Product*>& selected) {
    std::vector<bool> chosen(catalog.products.size(), count == 0);
    for (size_t r = 0; r < count; ++r) {
        bool found = false;
        for (size_t p = 0; p < catalog.products.size(); ++p) {
            if (!Names(products[r].entity, catalog.products[p].identity, catalog.products[p].version)) continue;
            chosen[p] = true;
            found = true;
        }
        if (!found) return Fail(kNotFound, "not found", "product " + FormatIdentity(IdentityOf(products[r].entity)));
    }
    for (size_t p = 0; p < catalog.products.size(); ++p)
        if (chosen[p]) selected.push_back(&catalog.products[p]);
    return kSuccess;
}

const Component* FindComponent(const Catalog& catalog, const Identity& identity, const Version& requested) {
    const Component* newest = nullptr;
    for (const Component& component : catalog.components) {
        if (component.identity != identity || !VersionNames(requested, component.version)) continue;
        if (newest == nullptr || newest->version < component.version) newest = &component;
    }
    return newest;
}

ComponentIndex::ComponentIndex(const Catalog& catalog) {
    entries_.reserve(catalog.components.size());
    for (const Component& component : catalog.components) entries_.push_back(&component);
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const Component* a, const Component* b) { return a->identity < b->identity; });
    for (size_t i = 0; i < entries_.size(); ++i)
        if (i == 0 || entries_[i - 1]->identity != entries_[i]->identity) starts_.push_back(i);
    starts_.push_back(entries_.size());
    newest_.reserve(size());
    for (size_t ordinal = 0; ordinal < size(); ++ordinal)
        newest_.push_back(*std::max_element(begin(ordinal), end(ordinal),
                                            [](const Component* a, const Component* b) { return a->version < b->version; }));
}

size_t ComponentIndex::Find(const Identity& identity) const {
    size_t low = 0, high = size();  // the first ordinal whose identity is not below `identity`
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (entries_[starts_[middle]]->identity < identity) low = middle + 1;
        else high = middle;
    }
    return low < size() && entries_[starts_[low]]->identity == identity ? low : kNone;
}

const Component* FindComponent(const ComponentIndex& index, const Identity& identity, const Version& requested) {
    const size_t ordinal = index.Find(identity);
    if (ordinal == ComponentIndex::kNone) return nullptr;
    if (requested.IsZero()) return index.Newest(ordinal);  // any version: the newest
    const Component* newest = nullptr;
    for (auto at = index.begin(ordinal); at != index.end(ordinal); ++at)
        if (VersionNames(requested, (*at)->version) && (newest == nullptr || newest->version < (*at)->version))
            newest = *at;
    return newest;
}

ZOVRELAY_Status ListCatalog(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count,
                            std::vector<ListedProduct>& listed) {
    std::vector<const Product*> selected;
    const ZOVRELAY_Status status = SelectProducts(catalog, products, count, selected);
    if (status <= 0) return status;
    const ComponentIndex index(catalog);
    for (const Product* product : selected) {
        ListedProduct item;
        item.entity = EntityOf(product->identity, product->version);
        item.components.reserve(product->components.size());
        for (const Identity& identity : product->components) {
            const Component* newest = FindComponent(index, identity, Version{});
            item.components.push_back(EntityOf(identity, newest->version));  // the parser checked it exists
        }
        listed.push_back(std::move(item));
    }
    return kSuccess;
}

ZOVRELAY_Status ListRepository(const std::map<Identity, Manifest>& held, const ZOVRELAY_Product* products,
                               size_t count, std::vector<ListedProduct>& listed) {
    std::map<std::pair<Identity, Version>, std::set<Identity>> recorded;
    for (const auto& [identity, manifest] : held)
        for (const ProductRef& product : manifest.products) recorded[{product.identity, product.version}].insert(identity);

    std::vector<bool> found(count, false);
    for (const auto& [product, components] : recorded) {
        bool chosen = count == 0;
        for (size_t r = 0; r < count; ++r) {
            if (Names(products[r].entity, product.first, product.second)) chosen = found[r] = true;
        }
        if (!chosen) continue;
        ListedProduct item;
        item.entity = EntityOf(product.first, product.second);
        for (const Identity& identity : components)
            for (const HeldVersion& version : held.at(identity).versions)
                item.components.push_back(EntityOf(identity, version.version));
        listed.push_back(std::move(item));
    }
    for (bool named : found)
        if (!named) return kNotFound;
    return kSuccess;
}

}  // namespace localrelay
