// Sample update sources: a catalog (server.ini) and real zip packages of random content, in a
// shape chosen by counts, deterministic for a seed. The catalog is written last, by rename, so a
// source that is still being written has none.
#ifndef TOOLS_SOURCEMAKER_H
#define TOOLS_SOURCEMAKER_H

#include <cstdint>
#include <string>

namespace sourcemaker {

struct Shape {
    unsigned products = 2;
    unsigned components = 4;  // per product; see Kinds in sourcemaker.cpp for what each is
    uint64_t size = 4096;     // bytes of random content in each package
    unsigned versions = 1;    // versions of each component the catalog offers
    uint64_t seed = 1;        // content, and the build number of every component version
};

struct Summary {
    unsigned packages = 0;
    uint64_t bytes = 0;  // package files, as the catalog counts them
};

// Writes the source into `directory` (created when missing). Returns an error message, or an
// empty string on success.
std::string MakeSource(const std::string& directory, const Shape& shape, Summary* summary = nullptr);

}  // namespace sourcemaker

#endif
