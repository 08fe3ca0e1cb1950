#include "run/sources.h"
#include "base/failure.h"
#include "repository/repository.h"
#include "base/status.h"
#include "base/files.h"
#include "base/wide.h"
#include "transfer/package.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

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

constexpr std::string_view kMemoryHeader = "zovrelay-catalog 1\n";
constexpr size_t kCatalogLimit = 64u << 20;

std::string Digest(const std::string& text) {
    Sha256 digest;
    digest.Update(text.data(), text.size());
    return digest.HexDigest();
}

std::string MemoryName(const std::string& address) { return ".catalog-" + Digest(address).substr(0, 16); }

struct Kept {
    std::string etag, modified, text;
};

// The kept copy of the catalog at `address`; nothing unless the record is whole, for this address,
// and its text still has the digest it was kept with.
std::optional<Kept> Recall(const CatalogMemory* memory, const std::string& address) {
    if (memory == nullptr || memory->root < 0) return std::nullopt;
    const std::optional<std::string> record = ReadWholeFileAt(memory->root, MemoryName(address), kCatalogLimit + 4096);
    if (!record || record->compare(0, kMemoryHeader.size(), kMemoryHeader) != 0) return std::nullopt;
    std::vector<std::string> fields;  // address, etag, modified, sha256
    size_t at = kMemoryHeader.size();
    for (const char* key : {"address ", "etag ", "modified ", "sha256 "}) {
        const size_t end = record->find('\n', at);
        const std::string_view line = std::string_view(*record).substr(at, end == std::string::npos ? 0 : end - at);
        if (end == std::string::npos || line.substr(0, std::strlen(key)) != key) return std::nullopt;
        fields.emplace_back(line.substr(std::strlen(key)));
        at = end + 1;
    }
    Kept kept{fields[1], fields[2], record->substr(at)};
    if (fields[0] != address || Digest(kept.text) != fields[3]) return std::nullopt;
    return kept;
}

void Keep(const CatalogMemory* memory, const std::string& address, const Revalidation& answer, const std::string& text) {
    if (memory == nullptr || !memory->keep || memory->root < 0) return;
    // Validators of one line each: anything else is not something a server could send back.
    for (const std::string* value : {&answer.answeredEtag, &answer.answeredModified})
        if (value->find('\n') != std::string::npos) return;
    WriteChangedFileAt(memory->root, MemoryName(address),
                       std::string(kMemoryHeader) + "address " + address + "\netag " + answer.answeredEtag + "\nmodified " +
                           answer.answeredModified + "\nsha256 " + Digest(text) + "\n" + text);
}

}  // namespace

ZOVRELAY_Status LoadSource(const ZOVRELAY_Source* sources, size_t count, const Options& options,
                           LoadedSource& loaded, Pool* pool, size_t* served, RunLog* log, const CatalogMemory* memory) {
    Failure failure{kNoSourceReachable, "no source address given"};
    std::string failed;  // the catalog's address
    auto refused = [&](const std::string& address, const std::string& catalog, ZOVRELAY_Status status,
                       const std::string& reason) {
        if (log != nullptr) log->sourcesTried.push_back(SourceAttempt{address, status, reason});
        if (failed.empty() || (status == kInvalidCatalog && failure.status != kInvalidCatalog)) {
            failure = Failure{status, reason};
            failed = catalog;
        }
    };
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
        // A source that is not a repository of ours has no source.ini: what its server.ini
        // answered is the reason, unless either catalog was malformed.
        Failure refusal{kNoSourceReachable, ""};
        std::string refusedAt;
        const auto note = [&](const std::string& address, ZOVRELAY_Status status, const std::string& reason) {
            if (refusal.status == kInvalidCatalog && status != kInvalidCatalog) return;
            refusal = Failure{status, reason};
            refusedAt = address;
        };
        // Over HTTP both catalogs are asked for at once: a source that is no repository of ours
        // answers source.ini with 404, and asking in turn cost a round trip every run. The
        // server.ini request stops as soon as source.ini is coming.
        const std::vector<std::string> addresses{JoinAddress(candidate.address, kSourceCatalogName),
                                                 JoinAddress(candidate.address, kIndexName)};
        std::vector<std::string> texts(2);
        std::vector<Fetched> first;
        const bool http = IsHttpAddress(candidate.address);
        // A catalog kept from last time is asked for alone, conditionally: most nights it is all.
        const std::optional<Kept> kept = http ? Recall(memory, addresses[0]) : std::nullopt;
        if (http && !kept) FetchFirstText(addresses, candidate.settings, texts, first);
        for (const char* name : {kSourceCatalogName, kIndexName}) {
            const size_t k = name == kSourceCatalogName ? 0 : 1;
            std::string text, error;
            const std::string& address = addresses[k];
            bool transient = false;
            ZOVRELAY_Status status;
            Revalidation revalidation;
            if (first.empty() || first[k].stopped || (first[k].status <= 0 && first[k].attempt.transient)) {
                const std::optional<Kept> copy = k == 0 ? kept : (http ? Recall(memory, address) : std::nullopt);
                if (copy) revalidation.etag = copy->etag, revalidation.modified = copy->modified;
                TransferSettings settings = candidate.settings;
                if (http) settings.revalidation = &revalidation;
                status = FetchText(address, settings, text, kCatalogLimit, &error, &transient);
                if (status > 0 && revalidation.notModified) text = copy->text;
                if (status > 0 && http) Keep(memory, address, revalidation, text);
            } else {
                status = first[k].status, error = first[k].error, text = std::move(texts[k]);
                if (status > 0) Keep(memory, address, first[k].revalidation, text);
            }
            if (status == kOutOfMemory) return status;
            if (status <= 0) {
                note(address, status, error);
                // A repository's source.ini that is only unreachable for now must not make way for
                // its server.ini, which names far less: the source is down, try the next.
                if (transient) break;
                continue;
            }
            std::optional<Catalog> catalog = ParseCatalog(text, &error);
            if (!catalog) {
                note(address, kInvalidCatalog, "invalid catalog (" + error + ")");
                continue;
            }
            if (log != nullptr) {
                log->sourcesTried.push_back(SourceAttempt{candidate.address, kSuccess, ""});
                log->servedBy = candidate.address;
            }
            candidate.catalog = std::move(*catalog);
            candidate.catalogName = name;
            loaded = std::move(candidate);
            if (served != nullptr) *served = i;
            return kSuccess;
        }
        refused(candidate.address, refusedAt, refusal.status, refusal.reason);
    }
    return Fail(failure.status, failure.reason, failed);
}

bool Alternates::Find(const Component& component, size_t& after, const LoadedSource*& source,
                      const Component*& listed) {
    for (size_t i = std::max(after + 1, next_); i < count_; ++i) {
        Loaded& entry = loaded_[i];
        if (entry.source == nullptr && entry.index.empty()) {
            auto candidate = std::make_unique<LoadedSource>();
            if (LoadSource(&sources_[i], 1, options_, *candidate, pool_) > 0) {
                for (const Component& c : candidate->catalog.components) entry.index[{c.identity, c.version}] = &c;
                entry.source = std::move(candidate);
            } else {
                entry.index[{}] = nullptr;  // tried: never loaded again
            }
        }
        if (entry.source == nullptr) continue;
        const auto found = entry.index.find({component.identity, component.version});
        if (found == entry.index.end() || found->second->size != component.size ||
            found->second->sha256 != component.sha256)
            continue;
        after = i;
        source = entry.source.get();
        listed = found->second;
        return true;
    }
    return false;
}

std::optional<Catalog> ReloadCatalog(const LoadedSource& source) {
    std::string text;
    if (FetchText(JoinAddress(source.address, source.catalogName), source.settings, text) <= 0) return std::nullopt;
    return ParseCatalog(text);
}

}  // namespace localrelay
