// Listing, mirroring, export and the release of information records: the calls that work on a
// context's repository. Arguments are checked here; the work lives in listing, mirror and
// repository.
#include "api/context.h"
#include "api/runmode.h"
#include "base/beside.h"
#include "base/failure.h"
#include "transfer/http.h"
#include "base/files.h"
#include "api/keys.h"
#include "api/library.h"
#include "run/listing.h"
#include "run/mirror.h"
#include "run/plan.h"
#include "run/quiet.h"
#include "api/records.h"
#include "run/report.h"
#include "repository/repository.h"
#include "run/sources.h"
#include "base/status.h"
#include "base/wide.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <set>
#include <filesystem>
#include <system_error>

namespace localrelay {
namespace {

// One operation at a time per context. A handler that destroys the running operation's context
// only marks it; the context goes when the operation returns. Everything the operation needs is
// copied first, so a handler changing options or subscriptions does not disturb it.
class Operation {
public:
    explicit Operation(ZOVRELAY_Context* context)
        : context_(context), busy_(context->running), options_(context->options), events_(context->events) {
        context_->running = true;
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation() {
        if (busy_) return;
        UnlockRepository(context_->repository);
        context_->running = false;
        if (context_->destroyPending) delete context_;
    }

    bool busy() const { return busy_; }
    // Writers take the repository's lock for the operation; readers never do.
    ZOVRELAY_Status Lock() const { return LockWriting(context_->repository); }
    const Repository& repository() const { return context_->repository; }
    int root() const { return context_->repository.directory.get(); }
    int packages() const { return context_->repository.packages.get(); }
    const Options& options() const { return options_; }
    const Events& events() const { return events_; }

private:
    ZOVRELAY_Context* context_;
    bool busy_;
    const Options options_;
    const Events events_;
};

bool ValidRequest(const ZOVRELAY_Product* products, size_t productCount, const ZOVRELAY_Source* sources,
                  size_t sourceCount) {
    if ((productCount > 0 && products == nullptr) || (sourceCount > 0 && sources == nullptr)) return false;
    for (size_t i = 0; i < productCount; ++i)
        if (products[i].componentCount > 0 && products[i].components == nullptr) return false;
    return true;
}

ZOVRELAY_Status HandOut(const std::vector<ListedProduct>& listed, ZOVRELAY_Information** information) {
    ZOVRELAY_Information* record = MakeInformation(listed);
    if (record == nullptr) return kOutOfMemory;
    *information = record;
    return kSuccess;
}

// "not found: c3t4l1p-1r-1o-1 16.1230.0.0", the version left out when any would do.
ZOVRELAY_Status NotHeld(const Identity& identity, const Version& version) {
    const std::string text = FormatVersion(version);
    return Fail(kNotFound, "not found", FormatIdentity(identity) + (text == "0.0.0.0" ? "" : " " + text));
}

// Takes no lock: the archive is opened once, and writers only ever replace it by rename.
ZOVRELAY_Status Export(const Operation& operation, const std::string& destination, const ZOVRELAY_EntityItem& entity) {
    const Identity identity = IdentityOf(entity);
    const std::unique_ptr<MergedArchive> archive = MergedArchive::Open(operation.packages(), MergedArchiveName(identity));
    if (archive == nullptr || archive->manifest().identity != identity) return NotHeld(identity, VersionOf(entity));
    const HeldVersion* chosen = nullptr;
    for (const HeldVersion& held : archive->manifest().versions) {  // newest first
        if (VersionNames(VersionOf(entity), held.version)) {
            chosen = &held;
            break;
        }
    }
    if (chosen == nullptr) return NotHeld(identity, VersionOf(entity));

    std::error_code error;
    std::filesystem::create_directories(destination, error);
    // The destination is the caller's path, links and all; within it we create only our own
    // exclusive temporary and rename it to the package's name.
    const FileDescriptor directory(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0) {
        const Failure failure = FromErrno(errno);
        return Fail(failure.status, failure.reason, destination);
    }
    RemoveAbandonedExports(directory.get());
    const std::string name = NameOf(chosen->path);
    const ZOVRELAY_Status status = ExtractInto(*archive, *chosen, directory.get(), "." + name + ".", kExportSuffix, name, true);
    // The bytes came from our own archive, not from a source: a damaged held copy is the
    // repository's problem, whoever finds it (a mirror with a full read-back heals it).
    if (status == kIntegrityFailed)
        return Fail(kIoError, "held copy damaged", operation.repository().path + "/packages/" + MergedArchiveName(identity));
    return status;
}

// Leaves the run report and metrics for an operation that ends with `status`.
void Report(const Operation& operation, const RunLog& log, RunSummary summary, ZOVRELAY_Status status,
            const ServedCatalog& held) {
    summary.ended = std::chrono::system_clock::now();
    summary.status = status;
    summary.message = MessageFor(status);
    for (const auto& [identity, component] : held) summary.heldVersions += component.manifest.versions.size();
    WriteRunReport(operation.root(), operation.repository().path, log, summary);
}

// Runs `fetch` (the source's catalog: mostly a wait on the network) while a thread of its own
// reads what the repository holds, which takes as long again on a large repository.
template <class Fetch>
HeldState ReadHeldStateDuring(const Operation& operation, Fetch&& fetch) {
    std::optional<HeldState> state;
    RunBeside(
        [&state, root = operation.root(), packages = operation.packages()] {
            try {
                state = ReadHeldState(root, packages);
            } catch (...) {  // out of memory: read again below, where it fails the operation
            }
        },
        fetch);
    if (!state) state = ReadHeldState(operation.root(), operation.packages());
    return std::move(*state);
}

struct Request {
    const ZOVRELAY_Product* products;
    size_t productCount;
    const ZOVRELAY_Source* sources;
    size_t sourceCount;
};

// A plan-only run: the same catalog fetch, selection and decisions as a mirror, under no lock,
// raising no event and writing nothing; the plan is kept for ZOVRELAY_LocalTakePlan.
ZOVRELAY_Status PlanMirror(const Operation& operation, const Request& request, std::vector<ListedProduct>& result) {
    // Zero products mirror nothing, and contact no source.
    if (request.productCount == 0) return KeepPlan(FormatPlan(Plan{}, "")), kSuccess;
    // A key that cannot be used fails the dry run as it would fail the mirror.
    TrustedKeys trusted;
    std::unique_ptr<SigningKey> signer;
    ZOVRELAY_Status status = ReadTrustedKeys(operation.root(), operation.repository().path, trusted);
    if (status > 0) status = ReadSigningKey(operation.repository().path, signer);
    if (status <= 0) return status;
    Pool pool;
    LoadedSource source;
    HeldState state = ReadHeldStateDuring(operation, [&] {
        const CatalogMemory memory{operation.root(), false, &trusted, ""};
        status = LoadSource(request.sources, request.sourceCount, operation.options(), source, &pool, nullptr, nullptr,
                            nullptr, &memory);
    });
    if (status <= 0) return status;
    std::vector<std::string> leaving;
    bool exact = true;
    std::string plan;
    const Events silent;
    status = Mirror(operation.repository(), operation.options(), silent, source, request.products, request.productCount,
                    result, leaving, state, exact, nullptr, nullptr, RunMode{true, ReadBackAll(), &plan});
    if (status > 0) KeepPlan(std::move(plan));
    return status;
}

// The catalogs follow the archives whatever happened: what was stored before a failure stays.
// Per-version archives beyond keepcount go only once the index no longer names them.
ZOVRELAY_Status Conclude(const Operation& operation, HeldState& state, bool exact, const std::vector<std::string>& leaving,
                         ZOVRELAY_Status status) {
    // What the mirror knows it left, or else what the archives say.
    HeldCache& cache = state.cache;
    if (!exact) {
        state.served = ReadServed(operation.packages(), state.packages.names(), cache);
        state.ServedChanged();
    }
    const ZOVRELAY_Status indexed = WriteCatalogs(
        operation.root(), operation.packages(), state.served, std::set<std::string>(leaving.begin(), leaving.end()),
        state.packages.names(), state.sourceCatalog ? &*state.sourceCatalog : nullptr, nullptr, state.sourceCurrent,
        state.signer);
    // Without it the next run reads the archives again (and formats source.ini to compare): no harm.
    cache.Write(operation.root(), indexed > 0);
    if (status > 0 && indexed <= 0) status = indexed;
    if (indexed > 0 && status != kCancelled) {
        const ZOVRELAY_Status pruned = RemoveVersionArchives(operation.packages(), operation.repository().path + "/packages",
                                                             leaving, operation.events());
        if (status > 0 && pruned <= 0) status = pruned;
    }
    return status;
}

// A night the seal answers: the source's catalog is fetched and checked, the event of the download
// (of nothing) raised, the report left; nothing else is read or written.
ZOVRELAY_Status Quiet(const Operation& operation, const QuietSeal& seal, const LoadedSource& source, RunLog& log,
                      RunSummary summary, const VendorSources& vendors, std::vector<ListedProduct>& result) {
    if (vendors.changed) (void)WriteWholeFileAt(operation.root(), VendorSources::kRecordName, vendors.Format());
    ZOVRELAY_Status status = kSuccess;
    if (!operation.events().Raise(ZOVRELAY_EVENT_DOWNLOAD, source.address, 0, 0)) status = kCancelled;
    if (status > 0) result = seal.result;
    if (KeepsPlan()) KeepPlan(std::string(seal.plan));
    log.held = seal.planned;
    summary.heldVersions = seal.heldVersions;
    Report(operation, log, summary, status, {});
    return status;
}

// What a run leaves for its conclusion.
struct Mirrored {
    HeldState state;
    bool exact = true;  // state.served is what the repository holds
    std::vector<std::string> leaving;
    std::string plan, digest, textDigest;  // digest: what the run was asked, its catalog included (RequestDigest)
    RunLog log;
};

// The seal, when one may answer this run: a run that keeps its plan needs a seal that kept one.
std::optional<QuietSeal> SealFor(const Operation& operation, int64_t now) {
    if (ReadBackAll()) return std::nullopt;
    std::optional<QuietSeal> seal = ReadQuietSeal(operation.root(), operation.packages(), now);
    if (seal && KeepsPlan() && seal->plan.empty()) seal.reset();
    return seal;
}

// Loads the source's catalog and mirrors the products from it. A night with nothing new is
// answered by the seal (`quiet`, reported already), once the catalog is the one it was made for
// and every file it saw is as it saw it (looked at while the catalog is fetched).
ZOVRELAY_Status MirrorProducts(const Operation& operation, const Request& request, const TrustedKeys& trusted,
                               const SigningKey* signer, Mirrored& run, std::vector<ListedProduct>& result,
                               const RunSummary& summary, bool& quiet) {
    Pool pool;  // the catalog's connection serves the packages too
    LoadedSource source;
    size_t served = 0;
    ZOVRELAY_Status status = kSuccess;
    VendorSources vendors =
        VendorSources::Parse(ReadWholeFileAt(operation.root(), VendorSources::kRecordName, 1 << 20).value_or(""));
    const int64_t now = NowNanoseconds();
    const std::optional<QuietSeal> seal = SealFor(operation, now);
    bool sealed = seal.has_value();  // the catalog that parsed for the seal may be left unparsed
    const auto load = [&] {
        const CatalogMemory memory{operation.root(), true, &trusted, sealed ? seal->textDigest : std::string()};
        status = LoadSource(request.sources, request.sourceCount, operation.options(), source, &pool, &served,
                            &run.log, &vendors, &memory);
    };
    const auto digest = [&] {
        return RequestDigest(request.products, request.productCount, source, operation.options(), signer);
    };
    if (seal) {
        const bool unchanged = FilesAsSealed(*seal, operation.root(), operation.packages(), now, load);
        if (status > 0) run.digest = digest();
        if ((quiet = status > 0 && unchanged && run.digest == seal->request))
            return Quiet(operation, *seal, source, run.log, summary, vendors, result);
        bool fetchAgain = false;
        if (status > 0) status = ParseLoaded(source, operation.root(), fetchAgain);
        if (fetchAgain) {  // its kept copy changed since: fetched whole
            sealed = false;
            run.log.sourcesTried.clear();
            load();
        }
        run.state = ReadHeldState(operation.root(), operation.packages());
    } else {
        run.state = ReadHeldStateDuring(operation, load);
    }
    RemoveQuietSeal(operation.root());
    run.state.signer = signer;
    // At best: a record that cannot be written costs one request the next night, nothing more.
    if (vendors.changed) (void)WriteWholeFileAt(operation.root(), VendorSources::kRecordName, vendors.Format());
    if (status <= 0) return status;
    Alternates alternates(request.sources, request.sourceCount, served, operation.options(), &pool);
    if (run.digest.empty()) run.digest = digest();
    run.textDigest = source.textDigest;
    return Mirror(operation.repository(), operation.options(), operation.events(), source, request.products,
                  request.productCount, result, run.leaving, run.state, run.exact, &run.log, &alternates,
                  RunMode{false, ReadBackAll(), KeepsPlan() ? &run.plan : nullptr});
}

ZOVRELAY_Status RunMirror(const Operation& operation, const Request& request, std::vector<ListedProduct>& result) {
    ZOVRELAY_Status status = operation.Lock();
    if (status <= 0) return status;
    RunSummary summary;
    summary.started = std::chrono::system_clock::now();
    // Keys are read before anything is fetched: a key that cannot be used stops the run at once,
    // before any catalog is written (unsigned, or from an empty state).
    TrustedKeys trusted;
    std::unique_ptr<SigningKey> signer;
    status = ReadTrustedKeys(operation.root(), operation.repository().path, trusted);
    if (status > 0) status = ReadSigningKey(operation.repository().path, signer);
    if (status <= 0) return status;
    Mirrored run;
    // Zero products mirror nothing: a filtered mirror that kept nothing must never become a full mirror.
    if (request.productCount > 0) {
        bool quiet = false;
        status = MirrorProducts(operation, request, trusted, signer.get(), run, result, summary, quiet);
        if (quiet) return status;
    } else {
        run.state = ReadHeldState(operation.root(), operation.packages());
        run.state.signer = signer.get();
    }
    status = Conclude(operation, run.state, run.exact, run.leaving, status);
    // A run that left nothing for the next to do seals the repository.
    const std::optional<uint64_t> held = HeldNextNight(run.log);
    if (status == kSuccess && request.productCount > 0 && held && run.leaving.empty() && run.exact)
        WriteQuietSeal(operation.root(), operation.packages(), run.digest, run.textDigest, result, run.state, *held,
                       run.log.size() == 0 ? run.plan : std::string());
    if (!run.plan.empty()) KeepPlan(std::move(run.plan));
    Report(operation, run.log, summary, status, run.state.served);
    return status;
}

}  // namespace
}  // namespace localrelay

using namespace localrelay;

extern "C" {

ZOVRELAY_Status ZOVRELAY_GetInformation(ZOVRELAY_Context* context, const ZOVRELAY_Product* products,
                                        size_t productCount, const ZOVRELAY_Source* sources, size_t sourceCount,
                                        ZOVRELAY_Information** information) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr || information == nullptr) return Settle(kInvalidArgument);
    if ((productCount > 0 && products == nullptr) || (sourceCount > 0 && sources == nullptr))
        return Settle(kInvalidArgument);
    return Guard([&]() -> ZOVRELAY_Status {
        const Operation operation(context);
        if (operation.busy()) return kRepositoryBusy;
        std::vector<ListedProduct> listed;
        ZOVRELAY_Status status;
        if (sourceCount == 0) {
            // No lock: the held cache is read, never written.
            HeldCache cache = HeldCache::Read(operation.root());
            status = ListRepository(ReadHeld(operation.packages(), &cache), products, productCount, listed);
        } else {
            RunLog log;
            RunSummary summary;
            summary.started = std::chrono::system_clock::now();
            LoadedSource source;
            TrustedKeys trusted;
            const CatalogMemory memory{operation.root(), false, &trusted, ""};
            status = ReadTrustedKeys(operation.root(), operation.repository().path, trusted);
            if (status > 0)
                status = LoadSource(sources, sourceCount, operation.options(), source, nullptr, nullptr, &log, nullptr, &memory);
            if (status > 0) status = ListCatalog(source.catalog, products, productCount, listed);
            // The filtered mirrors begin by listing the source: a mirror job that fails there is
            // on record too. A listing that succeeds leaves the last run's report alone.
            // Readers take no lock; the report is written under it, or not at all while a writer runs.
            if (status <= 0 && !PlanOnly() && operation.Lock() > 0)
                Report(operation, log, summary, status, ServedOf(operation.packages(), ReadHeld(operation.packages())));
        }
        return status > 0 ? HandOut(listed, information) : status;
    });
}

ZOVRELAY_Status ZOVRELAY_Duplicate(ZOVRELAY_Context* context, const ZOVRELAY_Product* products, size_t productCount,
                                   const ZOVRELAY_Source* sources, size_t sourceCount,
                                   ZOVRELAY_Information** information) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr || information == nullptr || !ValidRequest(products, productCount, sources, sourceCount))
        return Settle(kInvalidArgument);
    return Guard([&]() -> ZOVRELAY_Status {
        const Operation operation(context);
        if (operation.busy()) return kRepositoryBusy;
        const Request request{products, productCount, sources, sourceCount};
        std::vector<ListedProduct> result;
        ZOVRELAY_Status status = PlanOnly() ? PlanMirror(operation, request, result) : RunMirror(operation, request, result);
        if (status > 0) status = HandOut(NoAnswer() ? std::vector<ListedProduct>() : result, information);
        return status;
    });
}

// Frees whatever the library's state, so that a record never outlives a shut-down as a leak.
ZOVRELAY_Status ZOVRELAY_DestroyData(ZOVRELAY_Information* information) {
    const ZOVRELAY_Status stopped = IsStarted() ? kSuccess : kNotStarted;
    if (information == nullptr) return stopped > 0 ? kInvalidArgument : stopped;
    const ZOVRELAY_Status released =
        Guard([&]() -> ZOVRELAY_Status { return ReleaseInformation(information) ? kSuccess : kInvalidArgument; });
    return stopped > 0 ? released : stopped;
}

ZOVRELAY_Status ZOVRELAY_ExportComponent(ZOVRELAY_Context* context, const wchar_t* destination,
                                         ZOVRELAY_EntityItem entity) {
    if (!IsStarted()) return Settle(kNotStarted);
    if (context == nullptr || destination == nullptr) return Settle(kInvalidArgument);
    return Guard([&]() -> ZOVRELAY_Status {
        const std::optional<std::string> path = NarrowWide(destination);
        if (!path || path->empty()) return kInvalidArgument;
        const Operation operation(context);
        if (operation.busy()) return kRepositoryBusy;
        return Export(operation, *path, entity);
    });
}

}  // extern "C"
