#include "sources.h"
#include "status.h"
#include "wide.h"

namespace localrelay {
namespace {

bool Narrow(const wchar_t* text, std::string& bytes) {
    if (text == nullptr) {
        bytes.clear();
        return true;
    }
    std::optional<std::string> narrowed = NarrowWide(text);
    if (!narrowed) return false;
    bytes = std::move(*narrowed);
    return true;
}

}  // namespace

ZOVRELAY_Status LoadSource(const ZOVRELAY_Source* sources, size_t count, const Options& options,
                           LoadedSource& loaded, Pool* pool) {
    ZOVRELAY_Status failure = kNoSourceReachable;
    for (size_t i = 0; i < count; ++i) {
        const ZOVRELAY_Source& source = sources[i];
        if (source.url == nullptr) continue;
        LoadedSource candidate;
        candidate.settings.maxBandwidth = options.maxBandwidth;
        candidate.settings.httpsLevel = options.httpsLevel;
        candidate.settings.pool = pool;
        if (!Narrow(source.url, candidate.address)) return kInvalidArgument;
        if (const ZOVRELAY_Proxy* proxy = source.proxy) {
            ProxySettings& settings = candidate.settings.proxy;
            if (!Narrow(proxy->host, settings.host) || !Narrow(proxy->user, settings.user) ||
                !Narrow(proxy->password, settings.password))
                return kInvalidArgument;
            settings.used = !settings.host.empty();  // a proxy without a host is no proxy
            settings.type = proxy->type;
            settings.port = proxy->port;
        }
        std::string text;
        const ZOVRELAY_Status status =
            FetchText(JoinAddress(candidate.address, "server.ini"), candidate.settings, text);
        if (status == kOutOfMemory) return status;
        if (status == kInvalidCatalog) failure = kInvalidCatalog;
        if (status <= 0) continue;
        std::optional<Catalog> catalog = ParseCatalog(text);
        if (!catalog) {
            failure = kInvalidCatalog;
            continue;
        }
        candidate.catalog = std::move(*catalog);
        loaded = std::move(candidate);
        return kSuccess;
    }
    return failure;
}

}  // namespace localrelay
