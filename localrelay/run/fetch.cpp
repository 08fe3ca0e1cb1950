// The downloads of a run: one queue of every package the plan lacks, handed to the transfer
// engine, each outcome settled as it comes: a failed package is tried again from the next source
// that lists it, a stale byte range after the serving repository's catalog is read again, and a
// component is stored as soon as its last package ended.
#include "archive/zipwriter.h"
#include "base/beside.h"
#include "base/failure.h"
#include "base/status.h"
#include "transfer/resume.h"
#include "run/execution.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>

namespace localrelay {
namespace {

uint64_t SaturatingAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }
uint64_t SaturatingMultiply(uint64_t a, uint64_t b) { return b != 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b; }

class Fetcher {
public:
    Fetcher(RunContext& run, Storer& storer, const std::vector<size_t>& components)
        : run_(run), storer_(storer), components_(components), pending_(components.size()) {}

    ZOVRELAY_Status Run();
    const std::vector<Download>& downloads() const { return downloads_; }

private:
    void Queue();
    ZOVRELAY_Status CheckSpace() const;
    ZOVRELAY_Status Settle(size_t i);
    bool RetryRange(size_t i);
    void Retry(size_t i, const LoadedSource& from, const Component& listed);
    ZOVRELAY_Status Delivered(size_t i);
    ZOVRELAY_Status Rounds(ZOVRELAY_Status status);
    void Unfinished(ZOVRELAY_Status status);

    RunContext& run_;
    Storer& storer_;
    const std::vector<size_t>& components_;  // indexes into the plan's components
    std::vector<size_t> pending_;            // per entry of components_: downloads not ended yet
    std::vector<Download> downloads_;
    std::vector<const Component*> of_;       // the catalog entry of each download
    std::vector<size_t> group_;              // the entry of components_ of each download
    std::vector<size_t> sourceOf_;           // the alternate source each download came from last
    std::vector<bool> rangeRetried_;
    std::vector<size_t> logged_;             // each download's entry in the run log; kNotLogged: none
    static constexpr size_t kNotLogged = SIZE_MAX;
    std::vector<std::map<Version, const Download*>> fresh_;  // per entry of components_: verified parts
    std::vector<std::pair<size_t, Download>> again_;
    std::optional<Catalog> reloaded_;  // the source's catalog read again after a byte range failed
    bool reloadTried_ = false;
};

void Fetcher::Queue() {
    fresh_.resize(components_.size());
    for (size_t g = 0; g < components_.size(); ++g) {
        const ComponentPlan& plan = run_.plan.components[components_[g]];
        const std::vector<const Component*> downloads = plan.Downloads();
        pending_[g] = downloads.size();
        for (const Component* component : downloads) {
            Download d;
            d.information = component->PackagePath();
            d.address = JoinAddress(run_.source.address, component->path);
            d.root = IsHttpAddress(run_.source.address) ? "" : run_.source.address;
            d.settings = &run_.source.settings;
            d.offset = component->offset;
            d.size = component->size;
            d.sha256 = component->sha256;
            d.part = PartName(plan.identity, component->version);
            // Room for the header of the merged archive entry the part may become.
            const uint64_t align = run_.options.buildPatch != 0 && component->size >= 16 * kShareableBlock ? kShareableBlock : 0;
            d.headroom = LocalHeaderSize(EntryName(HeldVersion{component->version, component->PackagePath(), 0, {}}),
                                         component->size, 0, align);
            downloads_.push_back(std::move(d));
            of_.push_back(component);
            group_.push_back(g);
        }
    }
    sourceOf_.assign(downloads_.size(), 0);
    rangeRetried_.assign(downloads_.size(), false);
    logged_.assign(downloads_.size(), kNotLogged);
}

// Fails early, before a byte is fetched, when the repository's file system cannot hold what the
// plan needs: the packages still to fetch, and each touched merged archive written anew beside
// the old one. Sizes come from a source: the sum saturates rather than wraps.
ZOVRELAY_Status Fetcher::CheckSpace() const {
    uint64_t needed = 0;
    // A package is written once (twice with buildpatch where blocks cannot be shared).
    const uint64_t copies = run_.options.buildPatch != 0 ? 2 : 1;
    // What packages/ held when the run looked: nothing was made there since, so a name it did not
    // hold (a resume record, an archive) needs no look.
    const std::set<std::string>& names = run_.state.packages.names();
    for (const Download& d : downloads_) {
        const uint64_t resumed = names.count(ResumeName(d.part)) != 0 ? ResumableBytes(run_.packages, d) : 0;
        const uint64_t bytes = SaturatingMultiply(copies, d.size);
        needed = SaturatingAdd(needed, bytes > resumed ? bytes - resumed : 0);
    }
    for (size_t g = 0; g < components_.size(); ++g) {
        struct stat info {};
        const ComponentPlan& plan = run_.plan.components[components_[g]];
        if (pending_[g] > 0 && names.count(MergedArchiveName(plan.identity)) != 0 &&
            ::fstatat(run_.packages, MergedArchiveName(plan.identity).c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            needed = SaturatingAdd(needed, uint64_t(info.st_size));
    }
    struct statvfs space {};
    if (::fstatvfs(run_.packages, &space) != 0) return kSuccess;  // unknown: the writes will tell
    const uint64_t available = SaturatingMultiply(uint64_t(space.f_bavail), uint64_t(space.f_frsize));
    if (needed <= available) return kSuccess;
    constexpr uint64_t kMiB = 1 << 20;
    return Fail(kNoSpace, "no space left (needs " + std::to_string(needed / kMiB + (needed % kMiB != 0)) + " MiB, " +
                              std::to_string(available / kMiB) + " MiB free)",
                "packages/");
}

void Fetcher::Retry(size_t i, const LoadedSource& from, const Component& listed) {
    Download next = downloads_[i];
    next.address = JoinAddress(from.address, listed.path);
    next.root = IsHttpAddress(from.address) ? "" : from.address;
    next.settings = &from.settings;
    next.offset = listed.offset;
    again_.emplace_back(i, std::move(next));
}

// A byte range of a repository source that does not match its catalog means the source replaced
// that archive since we read its catalog: the catalog is read again, once per run, and the range
// it names now is tried instead.
bool Fetcher::RetryRange(size_t i) {
    const Download& d = downloads_[i];
    const Component& component = *of_[i];
    if (d.status != kIntegrityFailed || d.offset == 0 || sourceOf_[i] != 0 || rangeRetried_[i]) return false;
    rangeRetried_[i] = true;
    if (!reloadTried_) {
        reloadTried_ = true;
        reloaded_ = ReloadCatalog(run_.source);
    }
    if (reloaded_)
        for (const Component& fresh : reloaded_->components)
            if (fresh.identity == component.identity && fresh.version == component.version &&
                fresh.sha256 == component.sha256 && fresh.size == component.size) {
                Retry(i, run_.source, fresh);
                return true;
            }
    return false;
}

ZOVRELAY_Status Fetcher::Settle(size_t i) {
    Download& d = downloads_[i];
    const Component& component = *of_[i];
    if (RetryRange(i)) return kSuccess;
    // A package the serving source could not deliver is taken from the next source that lists
    // the same version with the same size and SHA-256, in further rounds.
    const LoadedSource* other = nullptr;
    const Component* listed = nullptr;
    if (d.status <= 0 && !StopsTheRun(d.status) && run_.alternates != nullptr &&
        run_.alternates->Find(component, sourceOf_[i], other, listed)) {
        Retry(i, *other, *listed);
        return kSuccess;
    }
    const ComponentPlan& plan = run_.plan.components[components_[group_[i]]];
    const char* action = plan.Heals(component.version) ? "heal" : "download";
    if (run_.log != nullptr) logged_[i] = run_.log->size();
    if (d.status > 0) {
        run_.Log(plan.identity, HeldVersion{component.version, component.PackagePath(), component.size, component.sha256},
                 action, d.status, &d);
        fresh_[group_[i]][component.version] = &d;
    } else {
        PackageOutcome outcome = run_.Outcome(component, action);
        outcome.source = d.address;
        outcome.bytes = d.received;
        outcome.seconds = d.seconds;
        // The downloader raised the failed "downloadend" already.
        // A transfer through a proxy names the proxy too: either may be the one to look at.
        const std::string object = RepositoryFailure(d.status)    ? "packages/" + d.part
                                   : d.settings->proxy.used       ? Through(d.address, *d.settings)
                                                                  : component.PackagePath();
        const ZOVRELAY_Status stop = run_.Failed(outcome, d.status, d.reason, object, false);
        if (stop <= 0) return stop;
    }
    return Delivered(i);
}

ZOVRELAY_Status Fetcher::Delivered(size_t i) {
    const size_t g = group_[i];
    return --pending_[g] == 0 ? storer_.Store(components_[g], fresh_[g]) : kSuccess;
}

ZOVRELAY_Status Fetcher::Rounds(ZOVRELAY_Status status) {
    while (status > 0 && !again_.empty()) {
        std::vector<size_t> original;
        std::vector<Download> round;
        for (auto& [i, d] : again_) original.push_back(i), round.push_back(std::move(d));
        again_.clear();
        status = DownloadAll(round, run_.packages, run_.options.maxBandwidth, run_.events, [&](Download& d) {
            const size_t i = original[size_t(&d - round.data())];
            downloads_[i] = d;
            return Settle(i);
        });
    }
    return status;
}

// A run that stops (a full disk, a refused write, a cancel) has packages in flight, packages not
// begun and packages downloaded for components it never stored: none of them is held, so each is
// reported failed.
void Fetcher::Unfinished(ZOVRELAY_Status status) {
    if (run_.log == nullptr) return;
    const std::string reason = "not stored: the run stopped (" + StatusText(status) + ")";
    for (size_t i = 0; i < downloads_.size(); ++i) {
        if (pending_[group_[i]] == 0) continue;  // stored, or reported by the store that failed
        const Download& d = downloads_[i];
        if (logged_[i] != kNotLogged) {
            run_.log->Failed(logged_[i], status, reason);
            continue;
        }
        const ComponentPlan& plan = run_.plan.components[components_[group_[i]]];
        PackageOutcome outcome = run_.Outcome(*of_[i], plan.Heals(of_[i]->version) ? "heal" : "download");
        outcome.source = d.address;
        outcome.bytes = d.received;
        outcome.seconds = d.seconds;
        outcome.status = status;
        outcome.reason = reason;
        run_.log->Add(std::move(outcome));
    }
}

ZOVRELAY_Status Fetcher::Run() {
    Queue();
    ZOVRELAY_Status status = CheckSpace();
    if (status <= 0) return Unfinished(status), status;
    for (size_t g = 0; g < components_.size(); ++g)
        if (pending_[g] == 0 && (status = storer_.Store(components_[g], fresh_[g])) <= 0) return status;
    status = DownloadAll(downloads_, run_.packages, run_.options.maxBandwidth, run_.events,
                         [&](Download& d) { return Settle(size_t(&d - downloads_.data())); });
    status = Rounds(status);
    if (status <= 0) Unfinished(status);
    return status;
}

}  // namespace

ZOVRELAY_Status FetchAndStore(RunContext& run, Storer& storer, const std::vector<size_t>& components,
                              std::vector<Download>& planned) {
    Fetcher fetcher(run, storer, components);
    ZOVRELAY_Status status = kSuccess;
    // New components are written on a thread of their own while the transfers go on (see Storer).
    storer.StartWork();
    RunBeside([&storer]() noexcept { storer.Work(); },
              [&] {
                  struct Stop {  // however the run ends, the store's thread ends with it
                      Storer& storer;
                      ~Stop() { storer.StopWork(); }
                  } stop{storer};
                  status = fetcher.Run();
                  // Everything handed over is recorded, whatever stopped the run.
                  const ZOVRELAY_Status collected = storer.Collect(true);
                  if (status > 0 && collected <= 0) status = collected;
              });
    planned = fetcher.downloads();
    return status;
}

}  // namespace localrelay
