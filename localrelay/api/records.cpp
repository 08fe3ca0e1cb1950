#include "api/records.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <set>

namespace localrelay {
namespace {

// Records may be freed from any thread; the set only ever holds our own live blocks.
std::mutex outstandingLock;
// Never destroyed, since DestroyData may come late; built in static storage rather than on the heap,
// so that once the library is unloaded (lua_close unloads update.so) leak checkers find nothing of
// it left: an empty set owns no memory.
std::set<const void*>& Outstanding() {
    alignas(std::set<const void*>) static unsigned char storage[sizeof(std::set<const void*>)];
    static std::set<const void*>* outstanding = new (storage) std::set<const void*>;
    return *outstanding;
}

}  // namespace

ZOVRELAY_Information* MakeInformation(const std::vector<ListedProduct>& products) {
    size_t componentCount = 0;
    for (const ListedProduct& product : products) componentCount += product.components.size();
    // Header, products, components: each part's size is a multiple of 8, so each stays aligned.
    const size_t bytes = sizeof(ZOVRELAY_Information) + products.size() * sizeof(ZOVRELAY_Product) +
                         componentCount * sizeof(ZOVRELAY_EntityItem);
    char* block = static_cast<char*>(std::calloc(1, bytes));
    if (block == nullptr) return nullptr;

    auto* information = reinterpret_cast<ZOVRELAY_Information*>(block);
    auto* productArray = reinterpret_cast<ZOVRELAY_Product*>(block + sizeof(ZOVRELAY_Information));
    auto* component = reinterpret_cast<ZOVRELAY_EntityItem*>(productArray + products.size());
    information->products = products.empty() ? nullptr : productArray;
    information->productCount = products.size();
    for (size_t i = 0; i < products.size(); ++i) {
        productArray[i].entity = products[i].entity;
        productArray[i].components = products[i].components.empty() ? nullptr : component;
        productArray[i].componentCount = products[i].components.size();
        for (const ZOVRELAY_EntityItem& item : products[i].components) *component++ = item;
    }
    try {
        const std::lock_guard<std::mutex> hold(outstandingLock);
        Outstanding().insert(information);
    } catch (...) {
        std::free(block);
        return nullptr;
    }
    return information;
}

bool ReleaseInformation(ZOVRELAY_Information* information) {
    {
        const std::lock_guard<std::mutex> hold(outstandingLock);
        if (Outstanding().erase(information) == 0) return false;
    }
    std::free(information);
    return true;
}

}  // namespace localrelay
