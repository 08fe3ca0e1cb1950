#include "run/options.h"
#include "base/status.h"

namespace localrelay {
namespace {

enum class Kind { kNumber, kCount, kText };

struct OptionEntry {
    int number;
    const char* key;  // the name scripts use, for readers of this table
    Kind kind;
    int64_t Options::*value;  // null for the text option
};

// A new option is one line here.
constexpr OptionEntry kOptionTable[] = {
    {0, "maxbandwidth", Kind::kNumber, &Options::maxBandwidth},
    {9, "buildpatch", Kind::kNumber, &Options::buildPatch},
    {10, "maxmerge", Kind::kCount, &Options::maxMerge},
    {11, "diffcount", Kind::kCount, &Options::diffCount},
    {12, "keepcount", Kind::kCount, &Options::keepCount},
    {15, "httpslevel", Kind::kNumber, &Options::httpsLevel},
    {22, "file_type_blacklist", Kind::kText, nullptr},
    {23, "enable_check_file_type_blacklist", Kind::kNumber, &Options::checkBlacklist},
    // The local relay's own options, numbered apart from the others.
    {1000, "lowspeedlimit", Kind::kCount, &Options::lowSpeedLimit},
    {1001, "lowspeedtime", Kind::kCount, &Options::lowSpeedTime},
    {1002, "catalogtimeout", Kind::kCount, &Options::catalogTimeout},
};

const OptionEntry* Find(int number) {
    for (const OptionEntry& entry : kOptionTable)
        if (entry.number == number) return &entry;
    return nullptr;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

ZOVRELAY_Status SetNumberOption(Options& options, int option, int64_t value) {
    const OptionEntry* entry = Find(option);
    if (entry == nullptr || entry->kind == Kind::kText) return kInvalidArgument;
    if (entry->kind == Kind::kCount && value < 0) return kInvalidArgument;
    options.*(entry->value) = value;
    return kSuccess;
}

ZOVRELAY_Status SetTextOption(Options& options, int option, const std::string& value) {
    const OptionEntry* entry = Find(option);
    if (entry == nullptr || entry->kind != Kind::kText) return kInvalidArgument;
    options.blacklist = value;
    return kSuccess;
}

bool IsBlacklisted(const Options& options, const std::string& path) {
    if (options.checkBlacklist == 0) return false;
    const std::string& list = options.blacklist;
    size_t at = 0;
    while (at <= list.size()) {
        size_t end = list.find(',', at);
        if (end == std::string::npos) end = list.size();
        size_t first = at, last = end;
        while (first < last && (list[first] == ' ' || list[first] == '\t')) ++first;
        while (last > first && (list[last - 1] == ' ' || list[last - 1] == '\t')) --last;
        if (first < last && list[first] == '.') ++first;
        const size_t length = last - first;
        // The extension must follow a dot: "zip" lists "a.zip", not "a.gzip".
        if (length > 0 && length < path.size() && path[path.size() - length - 1] == '.') {
            bool same = true;
            for (size_t i = 0; same && i < length; ++i)
                same = Lower(path[path.size() - length + i]) == Lower(list[first + i]);
            if (same) return true;
        }
        at = end + 1;
    }
    return false;
}

}  // namespace localrelay
