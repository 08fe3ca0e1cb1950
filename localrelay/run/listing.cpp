#include "run/listing.h"
#include "base/failure.h"
#include "base/status.h"

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

ComponentIndex IndexComponents(const Catalog& catalog) {
    ComponentIndex index;
    for (const Component& component : catalog.components) index[component.identity].push_back(&component);
    return index;
}

const Component* FindComponent(const ComponentIndex& index, const Identity& identity, const Version& requested) {
    const auto listed = index.find(identity);
    if (listed == index.end()) return nullptr;
    const Component* newest = nullptr;
    for (const Component* component : listed->second)
        if (VersionNames(requested, component->version) && (newest == nullptr || newest->version < component->version))
            newest = component;
    return newest;
}

ZOVRELAY_Status ListCatalog(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count,
                            std::vector<ListedProduct>& listed) {
    std::vector<const Product*> selected;
    const ZOVRELAY_Status status = SelectProducts(catalog, products, count, selected);
    if (status <= 0) return status;
    const ComponentIndex index = IndexComponents(catalog);
    for (const Product* product : selected) {
        ListedProduct item;
        item.entity = EntityOf(product->identity, product->version);
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
