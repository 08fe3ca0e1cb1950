// A relay context: one locked repository directory, with what the calls on it configure.
#ifndef LOCALRELAY_CONTEXT_H
#define LOCALRELAY_CONTEXT_H

#include "base/events.h"
#include "repository/lock.h"
#include "run/options.h"
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

// Takes the repository's lock for a writing operation. packages/ is searched for a killed run's
// temporaries unless the quiet seal shows no name was made there since it was taken.
ZOVRELAY_Status LockWriting(Repository& repository);

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
