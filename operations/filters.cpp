// Selective mirroring: list first, keep what a filter accepts, mirror exactly that.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "operations/operations.h"

namespace {

bool isPatternLike(const ZOVRELAY_EntityItem& component) {
    return component.klass == 3 || (component.klass == 22 && component.type == 2213);
}

// a * b + c, or false when it does not fit in size_t.
bool sizeFor(size_t a, size_t b, size_t c, size_t& result) {
    if (a != 0 && b > (SIZE_MAX - c) / a) return false;
    result = a * b + c;
    return true;
}

}  // namespace

int onlyPatterns(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product*, size_t) {
    return isPatternLike(component);
}

int onlyPatternsNoKerno(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product*, size_t) {
    return isPatternLike(component) && !(component.klass == 3 && component.type == 4);
}

int onlyNamedComponents(const ZOVRELAY_EntityItem& component, const ZOVRELAY_Product* names, size_t nameCount) {
    for (size_t i = 0; i < nameCount; ++i) {
        if (names[i].entity.klass == component.klass && names[i].entity.type == component.type) return 1;
    }
    return 0;
}

ZOVRELAY_Status filterAndDownload(SelectionFilter filter, ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                  size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                                  ZOVRELAY_Information** information, const ZOVRELAY_Product* names,
                                  size_t nameCount) {
    ZOVRELAY_Status status = ZOVRELAY_GetInformation(context, products, productCount, sources, sourceCount, information);
    if (status <= 0) return status;
    ZOVRELAY_Information* listing = *information;
    size_t listed = listing != nullptr ? listing->productCount : 0;

    // One block for every kept component, sized from the listing's total. When the listing names
    // more products than the caller's array holds, their records go into the same block, after
    // the components, so nothing is written past the caller's array.
    size_t total = 0;
    bool fits = true;
    for (size_t i = 0; i < listed && fits; ++i) fits = sizeFor(1, listing->products[i].componentCount, total, total);
    size_t componentBytes = 0;
    size_t productBytes = 0;
    size_t blockSize = 0;
    fits = fits && sizeFor(total, sizeof(ZOVRELAY_EntityItem), 0, componentBytes) &&
           sizeFor(listed > productCount ? listed : 0, sizeof(ZOVRELAY_Product), 0, productBytes) &&
           sizeFor(1, componentBytes, productBytes, blockSize);
    void* block = fits ? malloc(blockSize != 0 ? blockSize : 1) : nullptr;
    if (block == nullptr) {
        if (listing != nullptr) ZOVRELAY_DestroyData(listing);
        *information = nullptr;
        return kModuleOutOfMemory;
    }
    ZOVRELAY_EntityItem* cursor = static_cast<ZOVRELAY_EntityItem*>(block);
    // The caller's array was built from Lua for this call; it is only freed afterwards.
    ZOVRELAY_Product* filtered = productBytes != 0
                                     ? reinterpret_cast<ZOVRELAY_Product*>(static_cast<char*>(block) + componentBytes)
                                     : const_cast<ZOVRELAY_Product*>(products);

    size_t kept = 0;
    for (size_t i = 0; i < listed; ++i) {
        const ZOVRELAY_Product& product = listing->products[i];
        ZOVRELAY_Product& record = filtered[kept];
        record.components = cursor;
        record.componentCount = 0;
        for (size_t j = 0; j < product.componentCount; ++j) {
            if (!filter(product.components[j], names, nameCount)) continue;
            memcpy(cursor++, &product.components[j], sizeof(ZOVRELAY_EntityItem));
            ++record.componentCount;
        }
        if (record.componentCount != 0) {
            memcpy(&record.entity, &product.entity, sizeof(ZOVRELAY_EntityItem));
            ++kept;
        }
    }
    if (listing != nullptr) ZOVRELAY_DestroyData(listing);
    *information = nullptr;

    status = ZOVRELAY_Duplicate(context, filtered, kept, sources, sourceCount, information);
    free(block);
    return status;
}

ZOVRELAY_Status PatternOnly(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                            const ZOVRELAY_Source* sources, size_t sourceCount, ZOVRELAY_Information** information) {
    return filterAndDownload(onlyPatterns, context, products, productCount, sources, sourceCount, information, nullptr,
                             0);
}

ZOVRELAY_Status PatternOnlyNoKerno(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                                   const ZOVRELAY_Source* sources, size_t sourceCount,
                                   ZOVRELAY_Information** information) {
    return filterAndDownload(onlyPatternsNoKerno, context, products, productCount, sources, sourceCount, information,
                             nullptr, 0);
}
