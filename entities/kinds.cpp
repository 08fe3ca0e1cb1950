#include "entities/kinds.h"

#include <stdint.h>

namespace {

constexpr int32_t kAnyLanguage = INT32_MIN;

struct FriendlyName {
    int32_t klass;
    int32_t type;
    int32_t language;  // kAnyLanguage matches every language, so it must follow the specific rows
    const char* name;
};

// The first matching row wins.
const FriendlyName kFriendlyNames[] = {
    {3, 0x4, 1, "kerno_english"},
    {3, 0x4, 2, "kerno_china"},
    {3, 0x4, 4, "kerno_japan"},
    {3, 0x4, kAnyLanguage, "kerno_unknown"},
    {3, 0x800, kAnyLanguage, "mendal"},
    {3, 0x20000001, kAnyLanguage, "pog"},
    {3, 0x20000020, kAnyLanguage, "snarel_white"},
    {3, 0x20000040, kAnyLanguage, "snarel_black"},
    {3, 0x20000400, kAnyLanguage, "kerno_spyware"},
    {3, 0x40000010, kAnyLanguage, "grelt_da6"},
    {3, 0x40800000, kAnyLanguage, "belto_white_list"},
    {3, 0x48008000, 1, "lumo_english"},
    {3, 0x48008000, 2, "lumo_china"},
    {3, 0x48008000, 4, "lumo_japan"},
    {3, 0x48008000, kAnyLanguage, "lumo_unknown"},
    {3, 0x48040066, kAnyLanguage, "mimber"},
    {22, 0x8A5, kAnyLanguage, "tavi"},
};

}  // namespace

const char* EntityFriendlyName(const ZOVRELAY_EntityItem& item) {
    for (const FriendlyName& row : kFriendlyNames) {
        if (row.klass == item.klass && row.type == item.type &&
            (row.language == kAnyLanguage || row.language == item.language)) {
            return row.name;
        }
    }
    return nullptr;
}
