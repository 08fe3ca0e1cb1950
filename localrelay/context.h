// A relay context: one locked repository directory, with what the calls on it configure.
#ifndef LOCALRELAY_CONTEXT_H
#define LOCALRELAY_CONTEXT_H

#include "events.h"
#include "options.h"
#include "zovrelay.h"

#include <semaphore.h>

#include <string>
#include <utility>

namespace localrelay {

// Owns one open file descriptor; closing it drops any flock held through it.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    int get() const { return fd_; }
    int release() noexcept;

private:
    int fd_ = -1;
};

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

struct Repository {
    std::string path;          // our own copy: the caller's string dies with the call
    FileDescriptor directory;  // holds the exclusive flock; later work may openat() through it
};

// Creates the directory and its packages/ when missing, takes the lock, and removes the
// temporaries a killed run left. kRepositoryNotAccessible or kRepositoryBusy when it cannot.
ZOVRELAY_Status OpenRepository(const std::string& path, Repository& repository);

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
