// Resume records: the small file beside a part that says which file and which catalog entry the
// part's bytes belong to, and the server's validators for them. A later run continues a part
// only when its record still matches. Internal to the transfer layer (and its fuzz target).
#ifndef LOCALRELAY_RESUME_H
#define LOCALRELAY_RESUME_H

#include "transfer/downloader.h"

#include <cstddef>
#include <string>

namespace localrelay {

struct Validators {
    std::string etag, modified;
    bool empty() const { return etag.empty() && modified.empty(); }
};

// ".<identity>_<version>.part" gives ".<identity>_<version>.resume.part".
std::string ResumeName(const std::string& part);

// The record's text for `d` with these validators.
std::string FormatResumeRecord(const Download& d, const Validators& validators);

// The validators a record's text holds when it was written for `d` (same address, offset, size,
// digest and headroom); false for any other text, or a record with no validator.
bool ParseResumeRecord(const std::string& text, const Download& d, Validators& validators);

// The record beside d.part in `directory`, read and parsed (never through a link).
bool ReadResumeRecord(int directory, const Download& d, Validators& validators);

// Writes the record beside d.part anew (exclusively, never through a link); false when it could
// not be written whole.
bool WriteResumeRecord(int directory, const Download& d, const Validators& validators);

// pwrite of all `size` bytes at `at`; false with errno set.
bool WriteAll(int fd, const char* data, size_t size, uint64_t at);

}  // namespace localrelay

#endif
