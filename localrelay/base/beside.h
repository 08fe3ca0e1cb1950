// Work on a thread of its own while the caller's thread does something else.
#ifndef LOCALRELAY_BASE_BESIDE_H
#define LOCALRELAY_BASE_BESIDE_H

#include <pthread.h>
#include <signal.h>

#include <system_error>
#include <thread>

namespace localrelay {

// Runs `work` on a thread of its own while `during` runs on the caller's, and returns once both
// are done. The thread starts with every signal blocked (the host's handlers keep running on its
// own thread); `work` must raise no event and throw nothing. Where no thread can be had, `work`
// runs after `during`.
template <class Work, class During>
void RunBeside(Work&& work, During&& during) {
    std::thread thread;
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread = std::thread([&work]() noexcept { work(); });
    } catch (const std::system_error&) {
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    struct Join {
        std::thread& thread;
        ~Join() {
            if (thread.joinable()) thread.join();
        }
    } join{thread};
    const bool beside = thread.joinable();
    during();
    if (!beside) work();
}

}  // namespace localrelay

#endif
