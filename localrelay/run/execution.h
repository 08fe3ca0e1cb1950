// Executing a plan: what the steps of one run share (the repository, the source, the records they
// keep up to date, the outcome so far), the storing of merged and per-version archives
// (store.cpp) and the downloads (fetch.cpp). Internal to run/.
#ifndef LOCALRELAY_EXECUTION_H
#define LOCALRELAY_EXECUTION_H

#include "archive/zipwriter.h"
#include "base/events.h"
#include "base/files.h"
#include "repository/lock.h"
#include "run/options.h"
#include "run/plan.h"
#include "run/runlog.h"
#include "run/sources.h"
#include "run/survey.h"
#include "transfer/downloader.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace localrelay {

// Failures of one package leave the rest of the run going; these stop it at once: the repository
// cannot take more until the administrator acts.
bool StopsTheRun(ZOVRELAY_Status status);
// Failures of the repository's own files, whose message names the file rather than the package.
bool RepositoryFailure(ZOVRELAY_Status status);

struct RunContext {
    RunContext(const Repository& repository, const Options& options, const Events& events, const LoadedSource& source,
               RunLog* log, Alternates* alternates, HeldState& state, const Selection& selection, const Plan& plan,
               int64_t now);

    int root, packages;
    std::string packagesPath;
    const Options& options;
    const Events& events;
    const LoadedSource& source;
    RunLog* log;
    Alternates* alternates;
    HeldState& state;  // the records, told of everything the run changes
    const Selection& selection;
    const Plan& plan;
    int64_t now;  // nanoseconds since the epoch, as the run began

    std::map<Identity, Manifest> final;  // what each planned component holds afterwards
    std::vector<std::string> leaving;    // per-version archives beyond keepcount
    bool servedExact = true;             // state.served is what the repository holds: no write failed half-way
    // Merged archives this run wrote, as seen right after their rename: recorded as held and
    // verified once the run ends if still unchanged then (RecordWritten).
    std::vector<std::pair<std::string, FileIdentity>> written;
    ZOVRELAY_Status failure = kSuccess;  // the first failure that did not stop the run

    void Note(ZOVRELAY_Status status) {
        if (failure > 0) failure = status;
    }
    // `at`: when the file was seen with this identity, before its bytes were read.
    void RecordVerified(const std::string& name, const FileIdentity& file, int64_t at) {
        state.verified[name] = Verified{file, at};
        state.verifiedChanged = true;
    }
    // The archives this run wrote, vouched for in .held and .verified by a look after their last
    // change's clock tick (waiting out a short tick once), so that the next run need not read them.
    void RecordWritten();
    // The component's merged archive; nullptr when there is none we can trust, which is then replaced.
    std::unique_ptr<MergedArchive> OpenMerged(const Identity& identity) const;
    // A package that failed is reported as it happens, by a "downloadend" whose `finished` (the
    // bytes verified, 0) differs from `total` and whose information is "<path>: <reason>", and goes
    // into the run log. The run goes on unless the failure stops it; the first failure is the
    // run's status.
    ZOVRELAY_Status Failed(PackageOutcome outcome, ZOVRELAY_Status status, std::string reason, const std::string& object,
                           bool raise = true);
    void Log(const Identity& identity, const HeldVersion& held, const char* action, ZOVRELAY_Status status,
             const Download* d = nullptr);
    PackageOutcome Outcome(const Component& component, const char* action) const;
};

// Writes what a component's downloads brought into its merged archive (and per-version archives),
// and heals per-version archives from their merged archive.
//
// The catalogs never name a range of an archive being replaced: before the first archive that
// source.ini or server.ini lists is replaced, both are written once without every component the
// run has yet to store ("hidden"); stored components join again at checkpoints spaced so that
// writing the catalogs takes a small share of the run (and when the run ends), so that a release
// of n components writes them a bounded number of times rather than n. A run killed meanwhile
// leaves catalogs that name fewer components, never a wrong range.
class Storer {
public:
    // `components`: the plan's components to be stored, each by one call of Store.
    Storer(RunContext& run, const std::vector<size_t>& components);
    ~Storer();
    // `fresh`: the component's verified downloads, in their part files.
    ZOVRELAY_Status Store(size_t component, const std::map<Version, const Download*>& fresh);
    void Settle(size_t component);  // nothing to write: keepcount only
    bool HealVersionArchives(const HeldView& view);  // whether it changed packages/
    // Writes both catalogs now without the components still to be stored.
    ZOVRELAY_Status Hide();

    // While FetchAndStore runs, a new component of one fresh version (no archive held, nothing to
    // carry over or copy, not in the catalogs) is written on the store's own thread (Work), beside
    // the transfers: its archive built around the part, renamed into place and published. What the
    // run records of it is done on the calling thread, by Collect: as later components arrive, and
    // all of it at the end. The thread raises no event and records no failure; its outcome is
    // reported by Collect as Store would have reported it.
    void Work() noexcept;  // the store's thread, until StopWork
    void StartWork() { working_ = true; }
    void StopWork() noexcept;
    // Records what the thread wrote; with `all`, first writes what it has not taken and waits for
    // what it is writing. The first status that stops the run, else kSuccess.
    ZOVRELAY_Status Collect(bool all);
    struct Written;  // a component written on the store's thread: its inputs, then its outcome

private:
    bool Submit(size_t index, const Manifest& next, const std::map<Version, const Download*>& fresh,
                const MergedArchive* previous);
    ZOVRELAY_Status Commit(Written& written);

    ZOVRELAY_Status WriteCatalogsNow();
    void Finished(const Identity& identity);  // no longer to be stored, whatever the outcome
    void Checkpoint();
    ZOVRELAY_Status BuildArchive(const ComponentPlan& plan, Manifest& next, const std::map<Version, const Download*>& fresh,
                                 const MergedArchive* previous, std::map<Version, std::unique_ptr<TemporaryFile>>& copies,
                                 std::string& built, std::map<std::string, EntryRange>& ranges);
    ZOVRELAY_Status CopyVersions(const ComponentPlan& plan, Manifest& next, const std::map<Version, const Download*>& fresh,
                                 const Download* base, const MergedArchive* previous, ZipWriter& writer,
                                 std::map<Version, std::unique_ptr<TemporaryFile>>& copies);
    ZOVRELAY_Status Replace(const ComponentPlan& plan, const Manifest& next, const std::string& built,
                            const std::map<std::string, EntryRange>& ranges, std::unique_ptr<MergedArchive>& previous);
    ZOVRELAY_Status NotStored(const Identity& identity, ZOVRELAY_Status status, bool unnamed, const std::string& built);
    ZOVRELAY_Status KeepVersionArchives(const ComponentPlan& plan, const Manifest& manifest,
                                        std::map<Version, std::unique_ptr<TemporaryFile>>& copies);

    RunContext& run_;
    std::set<Identity> unstored_;  // planned components Store has not finished yet
    std::set<Identity> hidden_;    // left out of the catalogs written during the run
    std::set<Identity> listed_;    // what the catalogs on disk may list
    size_t joining_ = 0;           // hidden components stored since the last write: the next joins them
    int64_t lastWrite_ = 0, writeCost_ = 0;  // nanoseconds
    // The store's thread: components queued for it, being written (at most one), written.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::unique_ptr<Written>> queued_, written_;
    size_t writing_ = 0;
    bool working_ = false, stopping_ = false;
};

// Downloads every package the plan lacks from one queue, storing each component as soon as its
// last download ended, so that a run cut short keeps every component it completed. `planned`
// gets every download, for the parts a later run may continue.
ZOVRELAY_Status FetchAndStore(RunContext& run, Storer& storer, const std::vector<size_t>& components,
                              std::vector<Download>& planned);

}  // namespace localrelay

#endif
