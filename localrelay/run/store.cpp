// Storing a component: its merged archive written anew around what was downloaded, checked, and
// renamed into place; its per-version archives kept with buildpatch; per-version archives healed.
#include "archive/ziplayout.h"
#include "archive/zipwriter.h"
#include "base/failure.h"
#include "base/files.h"
#include "base/status.h"
#include "run/execution.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace localrelay {
namespace {

// Where an entry's data start in a merged archive: with buildpatch, a package large enough for
// it starts on a block boundary, so that its per-version archive (and the archive's next rewrite)
// can share its blocks instead of storing it again. Smaller ones would gain less than the padding.
uint64_t Alignment(const Options& options, uint64_t size) {
    return options.buildPatch != 0 && size >= 16 * kShareableBlock ? kShareableBlock : 0;
}

// A verified part file in packages/, removed unless released (after it was renamed).
class Part {
public:
    Part(int directory, std::string name) : packages_(directory), name_(std::move(name)) {}
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    ~Part() {
        if (!name_.empty()) ::unlinkat(packages_, name_.c_str(), 0);
    }
    const std::string& name() const { return name_; }
    void Release() { name_.clear(); }

private:
    int packages_;
    std::string name_;
};

// The file the new archive is written into: the largest download's part, whose bytes already
// follow a reserved header (so they are written once), or else a fresh temporary.
ZOVRELAY_Status OpenBuilt(int packages, const Identity& identity, const Download* base, FileDescriptor& file,
                          std::string& built) {
    if (base != nullptr) {
        file = FileDescriptor(OpenOwnFileAt(packages, base->part));
        if (file.get() < 0) return FileStatus(errno);
        built = base->part;
        return kSuccess;
    }
    TemporaryFile temporary;
    const std::string merged = MergedArchiveName(identity);
    const ZOVRELAY_Status created = temporary.Create(packages, TemporaryPrefix(merged), kTemporarySuffix, "packages/" + merged);
    if (created <= 0) return created;
    file = FileDescriptor(::fcntl(temporary.fd(), F_DUPFD_CLOEXEC, 0));
    if (file.get() < 0) return FileStatus(errno);
    built = temporary.name();
    temporary.Keep();  // the caller renames it, or removes it when anything fails
    return kSuccess;
}

// The archive as written, read back: its directory names each entry where, and with the size and
// CRC-32, the writer put it, every local header where the directory says, and the manifest entry
// holds the manifest. Every byte was checked as it was written; this checks the layout, which
// readers find the entries by. libzip is not asked here (the read-back opens each archive through
// it): opening one with its checks cost a fifth of storing a small package.
bool WrittenAsLaidOut(int fd, const std::map<std::string, EntryRange>& ranges, const std::string& manifest) {
    const std::optional<std::map<std::string, EntryRange>> read = ReadEntryRanges(fd);
    if (!read || *read != ranges) return false;
    const auto entry = read->find(kManifestEntry);
    if (entry == read->end() || !entry->second.stored || entry->second.size != manifest.size()) return false;
    std::string bytes(manifest.size(), '\0');
    return ::pread(fd, bytes.data(), bytes.size(), off_t(entry->second.offset)) == ssize_t(bytes.size()) &&
           bytes == manifest;
}

// The manifest and the central directory after the entries the writer has, and the layout checked.
ZOVRELAY_Status FinishArchive(int fd, ZipWriter& writer, const std::string& manifest,
                              std::map<std::string, EntryRange>& ranges) {
    ZOVRELAY_Status status = writer.Add(kManifestEntry, manifest);
    if (status > 0) status = writer.Finish();
    if (status <= 0) return status;
    ranges = writer.Ranges();
    return WrittenAsLaidOut(fd, ranges, manifest) ? kSuccess : kIntegrityFailed;
}

}  // namespace

ZOVRELAY_Status Storer::Store(size_t index, const std::map<Version, const Download*>& fresh) {
    const ComponentPlan& plan = run_.plan.components[index];
    struct Done {  // whatever the outcome, the component is no longer to be stored
        Storer& storer;
        const Identity& identity;
        bool handedOver = false;  // to the store's thread: Commit finishes it
        ~Done() {
            if (!handedOver) storer.Finished(identity);
        }
    } done{*this, plan.identity};
    std::unique_ptr<MergedArchive> previous = run_.OpenMerged(plan.identity);
    Manifest manifest;
    if (previous != nullptr) manifest = previous->manifest();
    manifest.identity = plan.identity;

    // The verified downloads, in hidden part files that go unless they become the archive.
    std::map<Version, std::unique_ptr<Part>> parts;
    std::vector<const Component*> stored;
    for (const Component* component : plan.Downloads()) {
        const auto done = fresh.find(component->version);
        if (done == fresh.end()) continue;
        parts[component->version] = std::make_unique<Part>(run_.packages, done->second->part);
        stored.push_back(component);
    }
    // Copies the survey found damaged are not carried over; what replaces them was downloaded.
    Manifest base = manifest;
    base.versions.erase(std::remove_if(base.versions.begin(), base.versions.end(),
                                       [&](const HeldVersion& v) {
                                           return std::find(plan.damaged.begin(), plan.damaged.end(), v.version) !=
                                                  plan.damaged.end();
                                       }),
                        base.versions.end());
    Manifest next = NextManifest(run_.source.catalog, run_.selection.components[index], std::move(base), stored, run_.options);
    if (plan.damaged.empty() && Submit(index, next, fresh, previous.get())) {
        for (auto& [version, part] : parts) part->Release();  // the store's thread has them now
        done.handedOver = true;
        return Collect(false);
    }

    std::map<Version, std::unique_ptr<TemporaryFile>> copies;  // per-version archives to be
    if (!next.versions.empty() && (previous == nullptr || FormatManifest(next) != FormatManifest(manifest) ||
                                   !fresh.empty() || !plan.damaged.empty())) {
        std::string built;  // the name the new archive is written under
        std::map<std::string, EntryRange> ranges;  // where its entries lie
        ZOVRELAY_Status status = BuildArchive(plan, next, fresh, previous.get(), copies, built, ranges);
        const bool unnamed = status <= 0;  // the writer's failures name no file; the file helpers' name theirs
        if (status > 0 && next.versions.empty()) {  // nothing held verified: the old archive stays
            ::unlinkat(run_.packages, built.c_str(), 0);
            return kSuccess;
        }
        if (status > 0) status = Replace(plan, next, built, ranges, previous);
        if (status > 0)
            for (auto& [version, part] : parts)
                if (part->name() == built) part->Release();
        if (status <= 0) return NotStored(plan.identity, status, unnamed, built);
    }
    run_.final[plan.identity] = next;
    const ZOVRELAY_Status status = KeepVersionArchives(plan, next, copies);
    Finished(plan.identity);
    if (status > 0) Checkpoint();
    return status;
}

// A component written on the store's thread. The inputs are copies: the thread reads nothing the
// calling thread may change meanwhile.
struct Storer::Written {
    size_t index = 0;
    Identity identity;
    Manifest next;
    std::string part, merged, entry, manifest;
    uint64_t headroom = 0, size = 0, align = 0;
    uint32_t crc = 0;
    // The outcome.
    ZOVRELAY_Status status = kSuccess;
    int error = 0;         // errno of the failure
    bool unnamed = false;  // a failure of the writer (it names no file), not of the rename
    std::map<std::string, EntryRange> ranges;
    std::optional<FileIdentity> file;  // the archive in place, after its link was made
};

namespace {

// The store's thread's part: the archive built around the part and checked, renamed into place
// and published. Nothing here raises an event or records a failure.
void WriteNew(int packages, Storer::Written& w) noexcept {
    try {
        FileDescriptor file(OpenOwnFileAt(packages, w.part));
        ZOVRELAY_Status status = file.get() >= 0 ? kSuccess : FileStatus(errno);
        if (status > 0) {
            ZipWriter writer(file.get(), w.headroom + w.size);
            status = writer.Adopt(w.entry, 0, w.size, w.crc, w.align);
            if (status > 0) status = FinishArchive(file.get(), writer, w.manifest, w.ranges);
        }
        w.unnamed = status <= 0;
        if (status <= 0) w.error = errno;
        if (status > 0 && (w.error = RenameOver(packages, w.part, w.merged)) != 0) status = FileStatus(w.error);
        if (status > 0) {
            PublishArchive(packages, w.identity);  // at best: the catalogs' write links what is left
            struct stat info {};
            if (::fstatat(packages, w.merged.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
                w.file = IdentityOf(info);
        }
        w.status = status;
    } catch (...) {
        w.status = kOutOfMemory, w.error = ENOMEM, w.unnamed = true;
    }
}

}  // namespace

Storer::~Storer() = default;

// Hands a new component of one fresh version to the store's thread; false when it is not one, or
// no thread is working.
bool Storer::Submit(size_t index, const Manifest& next, const std::map<Version, const Download*>& fresh,
                    const MergedArchive* previous) {
    const ComponentPlan& plan = run_.plan.components[index];
    if (!working_ || previous != nullptr || run_.options.buildPatch != 0 || fresh.size() != 1 ||
        next.versions.size() != 1 || listed_.count(plan.identity) != 0)
        return false;
    const HeldVersion& held = next.versions.front();
    const auto f = fresh.find(held.version);
    if (f == fresh.end()) return false;
    auto w = std::make_unique<Written>();
    w->index = index, w->identity = plan.identity, w->next = next;
    w->part = f->second->part, w->merged = MergedArchiveName(plan.identity), w->entry = EntryName(held);
    w->manifest = FormatManifest(next);
    w->headroom = f->second->headroom, w->size = f->second->size, w->crc = f->second->crc32;
    w->align = Alignment(run_.options, f->second->size);
    const std::lock_guard<std::mutex> lock(mutex_);
    queued_.push_back(std::move(w));
    changed_.notify_all();
    return true;
}

void Storer::Work() noexcept {
    for (;;) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return stopping_ || !queued_.empty(); });
        if (stopping_) return;
        std::unique_ptr<Written> w = std::move(queued_.front());
        queued_.pop_front();
        ++writing_;
        lock.unlock();
        WriteNew(run_.packages, *w);
        lock.lock();
        --writing_;
        written_.push_back(std::move(w));
        changed_.notify_all();
    }
}

void Storer::StopWork() noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    working_ = false;
    changed_.notify_all();
}

ZOVRELAY_Status Storer::Collect(bool all) {
    std::deque<std::unique_ptr<Written>> written;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (all) {
            // What the thread has not taken is written here: it may have no thread at all.
            while (!queued_.empty()) {
                std::unique_ptr<Written> w = std::move(queued_.front());
                queued_.pop_front();
                lock.unlock();
                WriteNew(run_.packages, *w);
                lock.lock();
                written_.push_back(std::move(w));
            }
            changed_.wait(lock, [&] { return writing_ == 0; });
        }
        written.swap(written_);
    }
    ZOVRELAY_Status status = kSuccess;
    for (const std::unique_ptr<Written>& w : written) {
        const ZOVRELAY_Status committed = Commit(*w);
        if (status > 0 && committed <= 0) status = committed;
    }
    return status;
}

// What Store records of a component once its archive is written (see Replace), or reports when it
// could not be.
ZOVRELAY_Status Storer::Commit(Written& w) {
    struct Done {
        Storer& storer;
        const Identity& identity;
        ~Done() { storer.Finished(identity); }
    } done{*this, w.identity};
    if (w.status <= 0) {
        ZOVRELAY_Status status = w.status;
        if (!w.unnamed) {  // the rename's failure, named here as ReplaceAt names it
            const Failure failure = FromErrno(w.error);
            status = Fail(failure.status, failure.reason, w.merged);
        }
        errno = w.error;
        return NotStored(w.identity, status, w.unnamed, w.part);
    }
    HeldState& state = run_.state;
    state.ServedChanged();
    state.cache.Forget(w.merged);
    if (w.file) {
        CachedArchive entry{*w.file, 0, w.next, {}, true};
        for (const HeldVersion& held : w.next.versions)
            if (const auto range = w.ranges.find(EntryName(held)); range != w.ranges.end()) entry.ranges.insert(*range);
        state.cache.Put(w.merged, std::move(entry));
        run_.written.emplace_back(w.merged, *w.file);
    }
    state.served[w.identity] = Served(run_.packages, w.next, &state.cache);
    run_.final[w.identity] = w.next;
    std::map<Version, std::unique_ptr<TemporaryFile>> copies;
    const ZOVRELAY_Status status = KeepVersionArchives(run_.plan.components[w.index], w.next, copies);
    Finished(w.identity);
    if (status > 0) Checkpoint();
    return status;
}

void Storer::Finished(const Identity& identity) {
    if (unstored_.erase(identity) != 0 && hidden_.count(identity) != 0) ++joining_;
}

Storer::Storer(RunContext& run, const std::vector<size_t>& components) : run_(run) {
    for (size_t i : components) unstored_.insert(run.plan.components[i].identity);
    for (const auto& [identity, served] : run.state.served) listed_.insert(listed_.end(), identity);
}

ZOVRELAY_Status Storer::WriteCatalogsNow() {
    const int64_t start = NowNanoseconds();
    const std::set<std::string> leaving(run_.leaving.begin(), run_.leaving.end());
    run_.state.ServedChanged();  // source.ini says something else now
    const ZOVRELAY_Status status = WriteCatalogs(run_.root, run_.packages, run_.state.served, leaving,
                                                 run_.state.packages.names(), nullptr, &hidden_, false, run_.state.signer);
    if (status > 0) listed_.clear();  // on failure either file may still list what it did
    for (const auto& [identity, served] : run_.state.served)
        if (hidden_.count(identity) == 0) listed_.insert(identity);
    lastWrite_ = NowNanoseconds();
    writeCost_ = lastWrite_ - start;
    return status;
}

ZOVRELAY_Status Storer::Hide() {
    hidden_.insert(unstored_.begin(), unstored_.end());
    return WriteCatalogsNow();
}

// Components stored since the last write join the catalogs again, once the time since that write
// is many times what it cost: a bounded share of the run, however many components it stores.
void Storer::Checkpoint() {
    constexpr int64_t kSecond = 1000000000;
    if (joining_ == 0 || NowNanoseconds() - lastWrite_ < std::max(kSecond, 20 * writeCost_)) return;
    for (auto identity = hidden_.begin(); identity != hidden_.end();)
        identity = unstored_.count(*identity) == 0 ? hidden_.erase(identity) : std::next(identity);
    joining_ = 0;
    WriteCatalogsNow();  // a failure here leaves them out until the run's last write
}

// The catalogs on disk stop naming the component before its archive is replaced (see Storer); its
// new ranges, as the writer laid them out, go to the held cache and what the catalogs will serve.
ZOVRELAY_Status Storer::Replace(const ComponentPlan& plan, const Manifest& next, const std::string& built,
                                const std::map<std::string, EntryRange>& ranges, std::unique_ptr<MergedArchive>& previous) {
    HeldState& state = run_.state;
    const std::string merged = MergedArchiveName(plan.identity);
    ZOVRELAY_Status status = kSuccess;
    if (listed_.count(plan.identity) != 0 && hidden_.count(plan.identity) == 0) status = Hide();
    if (status > 0) {
        previous.reset();
        status = ReplaceAt(run_.packages, built, merged);
    }
    if (status <= 0) return status;
    state.ServedChanged();
    state.cache.Forget(merged);
    PublishArchive(run_.packages, plan.identity);  // at best: the catalogs' write links what is left
    // Every byte was checked as it was written, and the layout on reopening (so the writer's
    // ranges are the file's): the archive is verified as it is now. It is recorded as such when the
    // run ends, if it has not changed since; the rename gave it a new change time.
    struct stat info {};
    if (::fstatat(run_.packages, merged.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode)) {
        CachedArchive entry{IdentityOf(info), 0, next, {}, true};
        for (const HeldVersion& held : next.versions)
            if (const auto range = ranges.find(EntryName(held)); range != ranges.end()) entry.ranges.insert(*range);
        state.cache.Put(merged, std::move(entry));
        run_.written.emplace_back(merged, IdentityOf(info));
    }
    state.served[plan.identity] = Served(run_.packages, next, &state.cache);
    return kSuccess;
}

// A merged archive that could not be written: what this run downloaded for it is lost with it.
ZOVRELAY_Status Storer::NotStored(const Identity& identity, ZOVRELAY_Status status, bool unnamed, const std::string& built) {
    const Failure cause = FromErrno(errno);
    run_.servedExact = false;
    if (!built.empty()) ::unlinkat(run_.packages, built.c_str(), 0);
    if (status == kIoError && RepositoryFailure(cause.status)) status = cause.status;
    const std::string reason = status == cause.status ? cause.reason : "cannot write";
    if (unnamed && (run_.failure > 0 || StopsTheRun(status))) Fail(status, reason, "packages/" + MergedArchiveName(identity));
    const std::string identityText = FormatIdentity(identity);
    if (run_.log != nullptr) run_.log->NotStored(identityText, status, "not stored: " + reason);
    if (StopsTheRun(status)) return status;
    run_.Note(status);
    return kSuccess;
}

// Writes the merged archive of `next` under a hidden name in packages/ (`built`), complete and
// checked, for the caller to rename into place. With buildpatch, each new version's per-version
// archive is made first (`copies`), sharing the part's blocks where the file system can.
ZOVRELAY_Status Storer::BuildArchive(const ComponentPlan& plan, Manifest& next,
                                     const std::map<Version, const Download*>& fresh, const MergedArchive* previous,
                                     std::map<Version, std::unique_ptr<TemporaryFile>>& copies, std::string& built,
                                     std::map<std::string, EntryRange>& ranges) {
    const Download* base = nullptr;  // the largest download: its part becomes the archive
    for (const HeldVersion& held : next.versions) {
        const auto f = fresh.find(held.version);
        if (f != fresh.end() && (base == nullptr || f->second->size > base->size)) base = f->second;
    }
    FileDescriptor file;
    ZOVRELAY_Status status = OpenBuilt(run_.packages, plan.identity, base, file, built);
    if (status <= 0) return status;
    if (run_.options.buildPatch != 0) {
        for (const auto& [version, d] : fresh) {
            if (next.Find(version) == nullptr) continue;
            const FileDescriptor part(OpenFileAt(run_.packages, d->part));
            const std::string target = VersionArchiveName(plan.identity, version);
            auto copy = std::make_unique<TemporaryFile>();
            status = copy->Create(run_.packages, TemporaryPrefix(target), kTemporarySuffix, "packages/" + target);
            if (status > 0) status = part.get() >= 0 ? CopyRange(part.get(), d->headroom, d->size, copy->fd(), 0) : FileStatus(errno);
            if (status <= 0) return status;
            copies[version] = std::move(copy);
        }
    }
    ZipWriter writer(file.get(), base != nullptr ? base->headroom + base->size : 0);
    if (base != nullptr) {
        const HeldVersion* first = nullptr;
        for (const HeldVersion& held : next.versions)
            if (fresh.count(held.version) != 0 && fresh.at(held.version) == base) first = &held;
        status = writer.Adopt(EntryName(*first), 0, base->size, base->crc32, Alignment(run_.options, base->size));
    }
    if (status > 0) status = CopyVersions(plan, next, fresh, base, previous, writer, copies);
    if (status <= 0 || next.versions.empty()) return status;
    return FinishArchive(file.get(), writer, FormatManifest(next), ranges);
}

// Every version but the adopted one is copied in, checked on the way: a held copy that no longer
// verifies is left out of `next` (so a damaged repository heals on the next run) and reported
// when it is wanted.
ZOVRELAY_Status Storer::CopyVersions(const ComponentPlan& plan, Manifest& next,
                                     const std::map<Version, const Download*>& fresh, const Download* base,
                                     const MergedArchive* previous, ZipWriter& writer,
                                     std::map<Version, std::unique_ptr<TemporaryFile>>& copies) {
    const std::optional<std::map<std::string, EntryRange>> ranges =
        previous != nullptr ? ReadEntryRanges(previous->fd()) : std::nullopt;
    for (auto held = next.versions.begin(); held != next.versions.end();) {
        const auto f = fresh.find(held->version);
        if (base != nullptr && f != fresh.end() && f->second == base) {
            ++held;
            continue;
        }
        const std::string name = EntryName(*held);
        const uint64_t align = Alignment(run_.options, held->size);
        ZOVRELAY_Status copied = kIntegrityFailed;
        if (f != fresh.end()) {
            const FileDescriptor part(OpenFileAt(run_.packages, f->second->part));
            if (part.get() >= 0) copied = writer.Copy(name, part.get(), f->second->headroom, held->size, held->sha256, align);
        } else if (ranges) {
            const auto range = ranges->find(name);
            if (range != ranges->end() && range->second.stored && range->second.size == held->size)
                copied = writer.Copy(name, previous->fd(), range->second.offset, held->size, held->sha256, align);
        }
        if (copied > 0) {
            ++held;
            continue;
        }
        if (copied != kIntegrityFailed) return copied;
        const bool wanted = std::any_of(plan.versions.begin(), plan.versions.end(),
                                        [&](const PlannedVersion& v) { return v.component->version == held->version; });
        if (wanted) {
            PackageOutcome outcome{held->path, FormatIdentity(plan.identity), FormatVersion(held->version), "", "verify",
                                   held->size, 0, 0, kSuccess, ""};
            const ZOVRELAY_Status stop = run_.Failed(outcome, kIntegrityFailed, "held copy failed its check; dropped", held->path);
            if (stop <= 0) return stop;
        }
        copies.erase(held->version);
        held = next.versions.erase(held);
    }
    return kSuccess;
}

// Per-version archives are made only for versions this run downloaded: a version held already is
// served from its merged archive, and rebuilding the copies the module's clean-up deletes would
// write and delete the same files every night. Pruning beyond keepcount happens after the index
// stops naming the files (see the caller of Mirror).
ZOVRELAY_Status Storer::KeepVersionArchives(const ComponentPlan& plan, const Manifest& manifest,
                                            std::map<Version, std::unique_ptr<TemporaryFile>>& copies) {
    for (auto& [version, copy] : copies) {
        if (manifest.Find(version) == nullptr) continue;
        const std::string target = VersionArchiveName(plan.identity, version);
        struct stat info {};
        // Republished (or healed) bytes replace a file the index may name: it stops naming it first.
        ZOVRELAY_Status status = kSuccess;
        if (listed_.count(plan.identity) != 0 && hidden_.count(plan.identity) == 0 &&
            ::fstatat(run_.packages, target.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            status = Hide();
        if (status > 0) status = copy->ReplaceInto(target);
        if (StopsTheRun(status)) return status;
        if (status <= 0) run_.Note(status);
    }
    if (run_.options.keepCount > 0) {
        const std::vector<std::pair<Version, std::string>> archives = VersionArchives(run_.packages, plan.identity);
        for (size_t i = 0; i + size_t(run_.options.keepCount) < archives.size(); ++i)
            run_.leaving.push_back(archives[i].second);
    }
    return kSuccess;
}

void Storer::Settle(size_t index) {
    const ComponentPlan& plan = run_.plan.components[index];
    if (const Manifest* held = run_.state.served.count(plan.identity) ? &run_.state.served.at(plan.identity).manifest : nullptr)
        run_.final[plan.identity] = *held;
    run_.leaving.insert(run_.leaving.end(), plan.pruned.begin(), plan.pruned.end());
}

// Per-version archives follow the same verification policy, checked against their merged
// archive's manifest: one whose bytes differ is written again from the merged archive (removed
// when that fails), so the index never names garbage. What the survey read is not read again.
bool Storer::HealVersionArchives(const HeldView& view) {
    bool changed = false;
    for (const auto& [identity, archives] : AllVersionArchives(run_.state.packages.names())) {
        const auto served = run_.state.served.find(identity);
        const auto surveyed = view.versionArchives.find(identity);
        std::unique_ptr<MergedArchive> merged;
        for (const auto& [version, name] : archives) {
            const HeldVersion* held = served != run_.state.served.end() ? served->second.manifest.Find(version) : nullptr;
            int64_t seen = NowNanoseconds();
            const FileDescriptor fd(OpenFileAt(run_.packages, name));
            const std::optional<FileIdentity> file = fd.get() >= 0 ? FileIdentityOf(fd.get()) : std::nullopt;
            if (held == nullptr || !file) continue;
            std::optional<std::string> digest;
            if (surveyed != view.versionArchives.end())
                for (const VersionArchive& archive : surveyed->second)
                    if (archive.name == name && archive.file == *file) digest = archive.sha256, seen = archive.seen;
            const bool due = digest || NeedsVerification(run_.state.verified, name, *file, run_.now);
            if (!due) continue;
            if (digest ? file->size == held->size && *digest == held->sha256 : FileMatches(fd.get(), held->size, held->sha256)) {
                run_.RecordVerified(name, *file, seen);
                continue;
            }
            if (merged == nullptr) merged = run_.OpenMerged(identity);
            const ZOVRELAY_Status status =
                merged != nullptr ? ExtractInto(*merged, *held, run_.packages, TemporaryPrefix(name), kTemporarySuffix, name)
                                  : kIntegrityFailed;
            if (status <= 0) RemoveAt(run_.packages, name);
            run_.Log(identity, *held, "heal", status);
            changed = true;
        }
    }
    return changed;
}

}  // namespace localrelay
