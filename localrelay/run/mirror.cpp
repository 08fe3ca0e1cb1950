#include "run/mirror.h"
#include "base/failure.h"
#include "base/status.h"
#include "run/execution.h"
#include "run/plan.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>

namespace localrelay {

bool StopsTheRun(ZOVRELAY_Status status) {
    return status == kCancelled || status == kIoError || status == kOutOfMemory || status == kRepositoryNotAccessible ||
           status == kNoSpace || status == kPermissionDenied;
}

bool RepositoryFailure(ZOVRELAY_Status status) {
    return status == kIoError || status == kNoSpace || status == kPermissionDenied;
}

RunContext::RunContext(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, RunLog* log, Alternates* alternates, HeldState& state,
                       const Selection& selection, const Plan& plan, int64_t now)
    : root(repository.directory.get()), packages(repository.packages.get()), packagesPath(repository.path + "/packages"),
      options(options), events(events), source(source), log(log), alternates(alternates), state(state),
      selection(selection), plan(plan), now(now) {}

std::unique_ptr<MergedArchive> RunContext::OpenMerged(const Identity& identity) const {
    std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages, MergedArchiveName(identity));
    return archive != nullptr && archive->manifest().identity == identity ? std::move(archive) : nullptr;
}

ZOVRELAY_Status RunContext::Failed(PackageOutcome outcome, ZOVRELAY_Status status, std::string reason,
                                   const std::string& object, bool raise) {
    if (reason.empty()) reason = StatusText(status);
    outcome.status = status;
    outcome.reason = reason;
    if (log != nullptr) log->Add(outcome);
    if (status == kCancelled) return status;
    // The event first: a handler may run relay calls of its own, which settle the thread's record.
    if (raise && !events.Raise(ZOVRELAY_EVENT_DOWNLOADEND, outcome.path + ": " + reason, outcome.size, 0))
        return kCancelled;
    if (failure > 0 || StopsTheRun(status)) Fail(status, reason, object);
    Note(status);
    return StopsTheRun(status) ? status : kSuccess;
}

void RunContext::Log(const Identity& identity, const HeldVersion& held, const char* action, ZOVRELAY_Status status,
                     const Download* d) {
    if (log == nullptr) return;
    log->Add(PackageOutcome{held.path, FormatIdentity(identity), FormatVersion(held.version),
                                           d != nullptr ? d->address : source.address, action, held.size,
                                           d != nullptr ? d->received : 0, d != nullptr ? d->seconds : 0, status,
                                           d != nullptr && status <= 0 ? d->reason : std::string()});
}

void RunContext::RecordWritten() {
    if (written.empty()) return;
    int64_t due = 0;
    for (const auto& [name, file] : written) due = std::max(due, file.changed + TimeTick(file));
    // Waiting out the tick of a file system that keeps fine times costs the run a few milliseconds
    // and the next run the reading of every archive written; a coarse one's second is not waited.
    constexpr int64_t kLongestWait = 100000000;
    const int64_t wait = due - NowNanoseconds();
    if (wait > 0 && wait <= kLongestWait) {
        const timespec pause{0, long(wait)};
        ::nanosleep(&pause, nullptr);
    }
    const int64_t at = NowNanoseconds();  // before the looks: any change after it moves the times
    for (const auto& [name, file] : written) {
        struct stat info {};
        const bool same = ::fstatat(packages, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
                          IdentityOf(info) == file;
        const CachedArchive* cached = same ? state.cache.Find(packages, name) : nullptr;
        if (cached == nullptr || !(cached->file == file)) {
            state.cache.Forget(name);  // changed under the run: the next run reads it
            continue;
        }
        if (!RecordedAfterChange(file, at, at)) continue;
        CachedArchive entry = *cached;
        entry.read = at;
        state.cache.Put(name, std::move(entry));
        RecordVerified(name, file, at);
    }
}

PackageOutcome RunContext::Outcome(const Component& component, const char* action) const {
    return PackageOutcome{component.PackagePath(), FormatIdentity(component.identity), FormatVersion(component.version),
                          source.address, action, component.size, 0, 0, kSuccess, ""};
}

namespace {

// The plan's skipped and held versions, as the run report counts them.
void LogPlan(const Plan& plan, RunContext& run) {
    if (run.log == nullptr) return;
    for (const ComponentPlan& component : plan.components)
        for (const PlannedVersion& version : component.versions) {
            if (version.action == Action::kSkip) run.log->Add(run.Outcome(*version.component, "skip"));
            if (version.action == Action::kHeld) ++run.log->held;
        }
}

ZOVRELAY_Status Execute(RunContext& run, const HeldView& view) {
    LogPlan(run.plan, run);
    // Settled components are done but for keepcount; the rest are fetched and stored.
    std::vector<size_t> stored;
    for (size_t i = 0; i < run.plan.components.size(); ++i)
        if (!run.plan.components[i].settled) stored.push_back(i);
    Storer storer(run, stored);
    for (size_t i = 0; i < run.plan.components.size(); ++i)
        if (run.plan.components[i].settled) storer.Settle(i);
    ZOVRELAY_Status status = kSuccess;
    // A read-back found damage: the catalogs stop naming those components before anything else.
    if (!view.damaged.empty()) status = storer.Hide();
    if (status > 0 && !run.events.Raise(ZOVRELAY_EVENT_DOWNLOAD, run.source.address, run.plan.bytes, 0)) status = kCancelled;
    std::vector<Download> planned;
    if (status > 0) status = FetchAndStore(run, storer, stored, planned);
    Listing& listing = run.state.packages;
    if (!stored.empty()) listing.Changed();
    if (status <= 0) run.servedExact = false;
    std::set<std::string> written;
    for (const auto& [name, file] : run.written) written.insert(name);
    for (size_t i : stored) {  // perhaps rewritten; what the run wrote itself it knows
        const std::string name = MergedArchiveName(run.plan.components[i].identity);
        if (written.count(name) == 0) run.state.cache.Forget(name);
    }
    if (status > 0) {
        // Parts of packages this run still wants stay for the next run to continue; others go.
        if (RemoveUnplannedParts(run.packages, listing.names(), planned)) listing.Changed();
        if (storer.HealVersionArchives(view)) listing.Changed();
    }
    // Archives gone since they were recorded need no record.
    const std::set<std::string>& present = listing.names();
    for (auto record = run.state.verified.begin(); record != run.state.verified.end();) {
        if (present.count(record->first) == 0) record = run.state.verified.erase(record), run.verifiedChanged = true;
        else ++record;
    }
    run.RecordWritten();
    if (run.verifiedChanged || run.state.verifiedChanged) WriteVerification(run.root, run.state.verified);  // without it the next run verifies again
    return status <= 0 ? status : run.failure;
}

}  // namespace

ZOVRELAY_Status Mirror(const Repository& repository, const Options& options, const Events& events,
                       const LoadedSource& source, const ZOVRELAY_Product* products, size_t count,
                       std::vector<ListedProduct>& result, std::vector<std::string>& leaving, HeldState& state,
                       bool& exact, RunLog* log, Alternates* alternates, RunMode mode) {
    Selection selection;
    ZOVRELAY_Status status = Select(source.catalog, products, count, selection);
    if (status <= 0) return status;
    const int64_t now = NowNanoseconds();
    const HeldView view = Survey(repository.packages.get(), state, selection,
                                 SurveyScope{mode.readBackAll, mode.planOnly}, now);
    const Plan plan = MakePlan(source.catalog, selection, view, options);
    if (mode.plan != nullptr) *mode.plan = FormatPlan(plan, source.address);
    if (mode.planOnly) {
        std::map<Identity, Manifest> after;
        for (const ComponentPlan& component : plan.components) after[component.identity] = component.next;
        result = HeldProducts(source.catalog, selection, options, after);
        return kSuccess;
    }
    RunContext run(repository, options, events, source, log, alternates, state, selection, plan, now);
    status = Execute(run, view);
    leaving = run.leaving;
    exact = run.servedExact;
    if (status <= 0) return status;
    result = HeldProducts(source.catalog, selection, options, run.final);
    return kSuccess;
}

}  // namespace localrelay
