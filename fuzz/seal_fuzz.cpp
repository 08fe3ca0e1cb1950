// The quiet seal's parser (.quiet in the repository's root) on arbitrary bytes, given the trailer
// they would need, so that the fuzzer reaches the layout behind it: a damaged or forged seal must
// be refused whole or read into file records whose names lie inside it, and what it accepts it
// writes back byte for byte.
#include <stddef.h>
#include <stdint.h>

#include <cstring>
#include <string>
#include <vector>

#include "run/quiet.h"
#include "transfer/package.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    localrelay::Sha256 digest;
    digest.Update(bytes.data(), bytes.size());
    bytes += digest.HexDigest();
    const auto seal = localrelay::ParseSeal(localrelay::FileBytes::Copy(bytes));
    if (!seal) return 0;
    std::vector<localrelay::SealedFile> files;
    for (size_t i = 0; i < seal->FileCount(); ++i) {
        files.push_back(seal->File(i));
        const char* name = seal->NameOf(files.back());
        if (name < seal->names.data() || name + std::strlen(name) >= seal->names.data() + seal->names.size())
            __builtin_trap();
    }
    if (localrelay::FormatSeal(*seal, files, seal->names) != bytes) __builtin_trap();
    return 0;
}
