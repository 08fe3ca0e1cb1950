// A relay context: one locked repository directory, with what the calls on it configure.
#ifndef LOCALRELAY_CONTEXT_H
#define LOCALRELAY_CONTEXT_H

#include "events.h"
#include "files.h"
#include "options.h"
#include "zovrelay.h"

#include <semaphore.h>

#include <string>
#include <utility>

namespace localrelay {

// The machine-wide semaphore /zovrelay, held open (never unlinked) for a context's life.
class NamedSemaphore {
public:
    NamedSemaphore();
    NamedSemaphore(const NamedSemaphore&) = delete;
    NamedSemaphore& operator=(const NamedSemaphore&) = delete;
    ~NamedSemaphore();

private:
    sem_t* handle_ = SEM_FAILED;
};

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
// kRepositoryNotAccessible when it cannot.
ZOVRELAY_Status OpenRepository(const std::string& path, Repository& repository);

// For a writing operation: takes the lock file's flock without waiting, then removes the
// temporaries a killed run left. kRepositoryBusy when another writer holds it.
ZOVRELAY_Status LockRepository(Repository& repository);
void UnlockRepository(Repository& repository);

} // namespace localrelay

// One member per concern; a plain delete releases them all.
struct ZOVRELAY_Context {
    explicit ZOVRELAY_Context(localrelay::Repository opened) : repository(std::move(opened)) {}

    localrelay::Repository repository;
    localrelay::NamedSemaphore semaphore;
    localrelay::Options options;
    localrelay::Events events;
    // An operation is running on this context. A handler may then destroy the context: that only
    // sets destroyPending, and the operation deletes the context when it returns.
    bool running = false;
    bool destroyPending = false;
};

#endif
