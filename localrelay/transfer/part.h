// A package's part file in packages/: the bytes received so far after the headroom, counted and
// hashed as they are written, and its resume record. Owns the descriptor: a part goes with its
// owner unless a resume record describes bytes a later run may continue.
#ifndef LOCALRELAY_PART_H
#define LOCALRELAY_PART_H

#include "transfer/downloader.h"
#include "transfer/package.h"
#include "transfer/resume.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace localrelay {

// Creates the parts of a download's packages ahead of their transfers, on two threads beside the
// one that drives them: creating a file is most of what a small package costs the file system (an
// inode to find, which on ext4 without a journal means stepping over every inode deleted in the
// last minutes), and the driving thread has the network, the digests and the store to do. A part
// is made only where no resume record lies (that part is continued, not made anew), at most
// kAhead before it is taken, in the order the parts are named; what nobody took by the end is
// removed.
class PartMaker {
public:
    static constexpr size_t kAhead = 16;
    // `unnamed`: parts are made unnamed from the start, not once creations turned slow.
    PartMaker(int directory, std::vector<std::string> names, bool unnamed = false);
    PartMaker(const PartMaker&) = delete;
    PartMaker& operator=(const PartMaker&) = delete;
    ~PartMaker();  // removes what was made and not taken; Stop() first

    // A maker's thread (two run side by side): makes parts until every name was seen or Stop().
    void Run(bool second = false) noexcept;
    void Stop() noexcept;
    // The descriptor of the part made for `name`, its ownership with it; -1 when none was (not
    // one of the names, not made yet, a resume record there, or its creation failed): the caller
    // then opens it as it would without a maker, and the maker leaves that name alone.
    int Take(const std::string& name) noexcept;

private:
    enum class State { kPending, kMaking, kMade, kLeft };
    struct Slot {
        std::string name;
        State state = State::kPending;
        int fd = -1;
    };
    int Make(const std::string& name);

    int directory_;
    std::vector<Slot> slots_;
    std::unordered_map<std::string_view, size_t> index_;
    std::mutex mutex_;
    std::condition_variable room_, made_, unnamedStarted_;  // for makers, takers, the second maker
    size_t taking_ = 0;                                      // takers waiting for a part being made
    size_t next_ = 0;     // the next slot a maker looks at
    size_t making_ = 0;   // being made
    size_t waiting_ = 0;  // made and not taken
    bool stopped_ = false;
    enum { kNamed, kUnnamed, kNever };
    std::atomic<int> unnamed_{kNamed};  // how parts are made (see Make)
    std::atomic<int> slow_{0};          // creations under a name that took long
};

class Part {
public:
    Part(int directory, Download& d, PartMaker* maker = nullptr) : directory_(directory), d_(d), maker_(maker) {}
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    ~Part() { Release(); }

    // Creates the part, or with `resumable` reopens one a record describes and hashes what it
    // holds. False with errno set when the repository refused.
    bool Open(bool resumable);
    // Writes `size` bytes after those held and hashes them; false with errno set.
    bool Append(const char* data, size_t size);
    // Drops the bytes held and the record: the server sent the whole file, or they no longer
    // verify. False when the part could not be emptied.
    bool Restart();
    // Writes the resume record once the part is worth it and the server named the file's version.
    void RecordIfWorth();
    // Whether the bytes held are the whole package with the catalog's digest.
    bool Intact();
    // Closes a verified part for the store to take; false with errno set.
    bool Close();
    // Closes the part; it stays (with its record) only when `keep` and a record describes bytes.
    void Release(bool keep = true);

    bool open() const { return fd_ >= 0; }
    uint64_t have() const { return have_; }
    uint32_t crc() const { return crc_; }
    bool recorded() const { return recorded_; }
    Validators validators;  // of the bytes in the part; empty when not resumable

private:
    bool Reopen();
    bool Create();
    void Reset();

    int directory_;
    Download& d_;
    PartMaker* maker_;
    int fd_ = -1;
    uint64_t have_ = 0;
    std::unique_ptr<Sha256> digest_;
    uint32_t crc_ = 0;
    bool recorded_ = false;
    bool digestChecked_ = false;
    bool made_ = false;  // made by the maker, where no resume record lay: none to remove unless written
};

}  // namespace localrelay

#endif
