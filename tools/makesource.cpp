// makesource: writes a sample update source (server.ini and zip packages of random content) of a
// chosen shape, for tests, the demo and benchmarks. Same options and seed, same bytes.
#include "sourcemaker.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void Usage(FILE* to) {
    std::fprintf(to,
                 "usage: makesource [--products N] [--components N] [--size BYTES] [--versions N] [--seed N] DIRECTORY\n"
                 "  --products N    products in the catalog (default 2)\n"
                 "  --components N  components per product (default 4): 1 the type 4 pattern (English), 2 the scan\n"
                 "                  engine, 3 the class 22 type 2213 rule package, 4 a pattern of the product's own\n"
                 "                  (Chinese), 5 a class 7 package (.pkg), 6 the type 4 pattern (Japanese), 7 an\n"
                 "                  engine of the product's own, more: further patterns of its own. 1, 2, 3 and 6\n"
                 "                  are shared by all products.\n"
                 "  --size BYTES    random content per package (default 4096)\n"
                 "  --versions N    versions of each component in the catalog (default 1)\n"
                 "  --seed N        content, and the build number of every version (default 1); a larger seed\n"
                 "                  makes a newer release of the same source\n"
                 "Packages are written first and server.ini last.\n");
}

bool Number(const char* text, uint64_t& value) {
    char* end = nullptr;
    if (text == nullptr || *text == '\0' || *text == '-') return false;
    value = std::strtoull(text, &end, 10);
    return *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
    sourcemaker::Shape shape;
    std::string directory;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        uint64_t value = 0;
        if (option == "--help" || option == "-h") {
            Usage(stdout);
            return 0;
        }
        if (option.rfind("--", 0) == 0) {
            if (i + 1 >= argc || !Number(argv[i + 1], value)) {
                std::fprintf(stderr, "makesource: %s needs a number\n", option.c_str());
                return 2;
            }
            ++i;
            if (option == "--products") shape.products = unsigned(value);
            else if (option == "--components") shape.components = unsigned(value);
            else if (option == "--size") shape.size = value;
            else if (option == "--versions") shape.versions = unsigned(value);
            else if (option == "--seed") shape.seed = value;
            else {
                std::fprintf(stderr, "makesource: unknown option %s\n", option.c_str());
                Usage(stderr);
                return 2;
            }
        } else if (directory.empty()) {
            directory = option;
        } else {
            Usage(stderr);
            return 2;
        }
    }
    if (directory.empty()) {
        Usage(stderr);
        return 2;
    }
    sourcemaker::Summary summary;
    const std::string error = sourcemaker::MakeSource(directory, shape, &summary);
    if (!error.empty()) {
        std::fprintf(stderr, "makesource: %s\n", error.c_str());
        return 1;
    }
    std::printf("%s: %u packages, %llu bytes, and server.ini\n", directory.c_str(), summary.packages,
                static_cast<unsigned long long>(summary.bytes));
    return 0;
}
