// The zip layout reader on arbitrary bytes: it never crashes, and every range it answers lies
// inside the file. The bytes are a repository's merged archive as another relay may have damaged
// or forged it.
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include "archive/ziplayout.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = memfd_create("archive", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != ssize_t(size)) __builtin_trap();
    const auto entries = localrelay::ReadEntryRanges(fd);
    close(fd);
    if (!entries) return 0;
    for (const auto& [name, range] : *entries)
        if (range.offset > size || range.size > size - range.offset) __builtin_trap();
    return 0;
}
