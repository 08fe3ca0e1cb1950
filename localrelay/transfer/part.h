// A package's part file in packages/: the bytes received so far after the headroom, counted and
// hashed as they are written, and its resume record. Owns the descriptor: a part goes with its
// owner unless a resume record describes bytes a later run may continue.
#ifndef LOCALRELAY_PART_H
#define LOCALRELAY_PART_H

#include "transfer/downloader.h"
#include "transfer/package.h"
#include "transfer/resume.h"

#include <cstdint>
#include <memory>

namespace localrelay {

class Part {
public:
    Part(int directory, Download& d) : directory_(directory), d_(d) {}
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
    int fd_ = -1;
    uint64_t have_ = 0;
    std::unique_ptr<Sha256> digest_;
    uint32_t crc_ = 0;
    bool recorded_ = false;
    bool digestChecked_ = false;
};

}  // namespace localrelay

#endif
