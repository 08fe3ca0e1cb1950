// The repository directory as a writer and a reader hold it: the descriptors every file operation
// goes through, and the lock that keeps writers apart.
#ifndef LOCALRELAY_LOCK_H
#define LOCALRELAY_LOCK_H

#include "base/files.h"
#include "zovrelay.h"

#include <string>

namespace localrelay {

// An opened repository. Every file operation goes through these descriptors, opened when the
// context was made: renaming the repository or putting a link in its place later cannot redirect
// a write.
struct Repository {
    std::string path;          // our own copy, absolute; for messages and event texts only
    FileDescriptor directory;  // the repository directory
    FileDescriptor packages;   // its packages/, a real directory
    FileDescriptor lock;       // the lock file ".lock", flocked while a writing operation runs
};

// The lock file in the repository's root. Cron guards such as `flock -n REPO command` lock the
// directory itself, so they and the relay never collide.
inline constexpr const char* kLockName = ".lock";

// Creates the directory and its packages/ when missing and opens both; a packages/ that is not a
// real directory (a link to elsewhere, say) is refused. Takes no lock: readers never wait.
// kRepositoryNotAccessible when it cannot. Without `create`, nothing is made or removed: a
// missing directory (or packages/) stays closed and reads as an empty repository.
ZOVRELAY_Status OpenRepository(const std::string& path, Repository& repository, bool create = true);

// For a writing operation: takes the lock file's flock without waiting, then removes the
// temporaries a killed run left in the root; those in packages/ (a large directory to read) are
// the caller's to remove, under the lock. kRepositoryBusy when another writer holds it.
ZOVRELAY_Status LockRepository(Repository& repository);
void UnlockRepository(Repository& repository);

}  // namespace localrelay

#endif
