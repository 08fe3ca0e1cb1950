// Which products a request names, and what a catalog or a repository lists for them.
#ifndef LOCALRELAY_LISTING_H
#define LOCALRELAY_LISTING_H

#include "archive/archive.h"
#include "catalog/catalog.h"

#include <map>
#include <vector>

namespace localrelay {

// A product with the components an operation answers for it: what the caller gets back as a record.
struct ListedProduct {
    ZOVRELAY_EntityItem entity{};
    std::vector<ZOVRELAY_EntityItem> components;
};


// A requested product names a listed one when klass and type are equal, each of language,
// platform, region and oem is equal or requested as -1, and the requested version is all zero
// or equal in major, minor and build.
bool Names(const ZOVRELAY_EntityItem& requested, const Identity& identity, const Version& version);
// The same rule for a requested component's version: all zero, or major, minor and build equal.
bool VersionNames(const Version& requested, const Version& version);

// The catalog's products that the request names (all of them for an empty request), each once
// and in catalog order. kNotFound when some requested product names none.
ZOVRELAY_Status SelectProducts(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count,
                               std::vector<const Product*>& selected);

// The newest catalog entry of a component that `requested` names; nullptr when there is none.
const Component* FindComponent(const Catalog& catalog, const Identity& identity, const Version& requested);
// The catalog's components by identity, so that a plan over many components looks each up in
// logarithmic time instead of walking the catalog for every one. Flat: a pointer per component
// and an offset per identity (a map of identities cost about 130 bytes per component).
class ComponentIndex {
public:
    static constexpr size_t kNone = SIZE_MAX;
    explicit ComponentIndex(const Catalog& catalog);
    // The ordinal of `identity` among the catalog's identities; kNone when it is not listed.
    size_t Find(const Identity& identity) const;
    size_t size() const { return starts_.size() - 1; }
    // The entries of identity `ordinal`, in catalog order.
    const Component* const* begin(size_t ordinal) const { return entries_.data() + starts_[ordinal]; }
    const Component* const* end(size_t ordinal) const { return entries_.data() + starts_[ordinal + 1]; }
    // Its newest entry.
    const Component* Newest(size_t ordinal) const { return newest_[ordinal]; }

private:
    std::vector<const Component*> entries_;  // by identity, then in catalog order
    std::vector<size_t> starts_;             // where each identity's entries begin, and the end
    std::vector<const Component*> newest_;   // per identity
};
const Component* FindComponent(const ComponentIndex& index, const Identity& identity, const Version& requested);

// Listing a source: each selected product with its components at their newest catalog version.
ZOVRELAY_Status ListCatalog(const Catalog& catalog, const ZOVRELAY_Product* products, size_t count,
                            std::vector<ListedProduct>& listed);

// Listing a repository: the products recorded in its merged archives, each with every held
// version of its components, newest first. Products and components in identity order.
ZOVRELAY_Status ListRepository(const std::map<Identity, Manifest>& held, const ZOVRELAY_Product* products,
                               size_t count, std::vector<ListedProduct>& listed);

}  // namespace localrelay

#endif
