#include "run/survey.h"
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>

namespace localrelay {
namespace {

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Reads one merged archive back in full: the versions that fail go into `view.damaged`; the
// archive's records are made again from the archive itself.
void ReadBack(int packages, HeldState& state, const Identity& identity, HeldView& view) {
    const std::string name = MergedArchiveName(identity);
    const int64_t seen = NowNanoseconds();
    const std::unique_ptr<MergedArchive> archive = MergedArchive::Open(packages, name);
    state.cache.Forget(name);
    if (archive == nullptr || archive->manifest().identity != identity) {
        view.unreadable.insert(identity);
        return;
    }
    std::vector<Version> damaged;
    for (const HeldVersion& held : archive->manifest().versions)
        if (archive->Verify(held) <= 0) damaged.push_back(held.version);
    if (damaged.empty()) state.verified[name] = Verified{archive->file(), seen}, state.verifiedChanged = true;
    else view.damaged[identity] = damaged;
    // What source.ini serves of it comes from the archive's own layout again, not from a record,
    // and never a version that failed just now: the held cache keeps no range for it (so nothing
    // made from the cache serves it either) until the archive is read again.
    state.cache.Find(packages, name);
    for (const HeldVersion& held : archive->manifest().versions)
        if (std::find(damaged.begin(), damaged.end(), held.version) != damaged.end())
            state.cache.DropRange(name, EntryName(held));
    ServedComponent served = Served(packages, archive->manifest(), &state.cache);
    ServedComponent& current = state.served[identity];
    if (!SameManifest(current.manifest, served.manifest) || current.offsets != served.offsets)
        state.ServedChanged();
    current = std::move(served);
}

void SurveyVersionArchives(int packages, HeldState& state, const SurveyScope& scope, int64_t now, HeldView& view) {
    for (const auto& [identity, archives] : AllVersionArchives(state.packages.names())) {
        std::vector<VersionArchive>& found = view.versionArchives[identity];
        for (const auto& [version, name] : archives) {
            const int64_t seen = NowNanoseconds();
            const FileDescriptor fd(OpenFileAt(packages, name));
            const std::optional<FileIdentity> file = fd.get() >= 0 ? FileIdentityOf(fd.get()) : std::nullopt;
            if (!file) continue;
            VersionArchive archive{version, name, file->size, *file, std::nullopt, seen};
            if (scope.everything || NeedsVerification(state.verified, name, *file, now)) archive.sha256 = FileDigest(fd.get());
            found.push_back(std::move(archive));
        }
    }
}

}  // namespace

HeldState ReadHeldState(int root, int packages) {
    HeldState state{HeldCache::Read(root), Listing(packages), {}, {}, ReadVerification(root)};
    state.served = ReadServed(packages, state.packages.names(), state.cache);
    // A night with nothing new need not format what source.ini says to learn that it says it.
    state.sourceCurrent = state.cache.SourceCatalogCurrent(root);
    if (!state.sourceCurrent) state.sourceCatalog = FormatSourceCatalog(state.served);
    return state;
}

HeldView Survey(int packages, HeldState& state, const Selection& selection, SurveyScope scope, int64_t now) {
    HeldView view;
    view.served = &state.served;
    std::set<Identity> identities;
    for (const Selected& selected : selection.components) identities.insert(selected.identity);
    if (scope.everything)
        for (const auto& [identity, served] : state.served) identities.insert(identity);
    for (const Identity& identity : identities) {
        const std::string name = MergedArchiveName(identity);
        const CachedArchive* cached = state.cache.Find(packages, name);
        if (cached == nullptr || cached->manifest.identity != identity) {
            if (state.served.count(identity) != 0) view.unreadable.insert(identity);
            continue;
        }
        if (scope.everything || NeedsVerification(state.verified, name, cached->file, now))
            ReadBack(packages, state, identity, view);
    }
    SurveyVersionArchives(packages, state, scope, now, view);
    if (scope.sizes) {
        std::set<std::string> versioned;
        for (const auto& [identity, archives] : view.versionArchives)
            for (const VersionArchive& archive : archives) versioned.insert(archive.name);
        for (const std::string& name : state.packages.names()) {
            struct stat info {};
            if (name.empty() || name[0] == '.' || EndsWith(name, "_merged.zip") || versioned.count(name) != 0 ||
                ::fstatat(packages, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            view.files[name] = uint64_t(info.st_size);
        }
    }
    return view;
}

}  // namespace localrelay
