// relaymirror: one mirror straight through the relay's C interface, for bench/everything_bench.lua
// to time the relay alone beside update.everything on the same source, in the same loop.
//
//   relaymirror REPOSITORY SOURCE PRODUCT...
//
// Each PRODUCT is a full identity (c1t100l1p-1r-1o-1), mirrored whole at its newest version.
// Prints the seconds from ZOVRELAY_CreateContext to ZOVRELAY_DestroyContext; exits 1 on failure.
#include "zovrelay.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

std::wstring Wide(const char* text) {
    const std::string bytes(text);
    return std::wstring(bytes.begin(), bytes.end());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: relaymirror REPOSITORY SOURCE PRODUCT...\n");
        return 2;
    }
    std::vector<ZOVRELAY_Product> products;
    for (int i = 3; i < argc; ++i) {
        ZOVRELAY_Product product{};
        ZOVRELAY_EntityItem& e = product.entity;
        if (std::sscanf(argv[i], "c%dt%dl%dp%dr%do%d", &e.klass, &e.type, &e.language, &e.platform, &e.region,
                        &e.oem) != 6) {
            std::fprintf(stderr, "relaymirror: not a full identity: %s\n", argv[i]);
            return 2;
        }
        products.push_back(product);
    }
    ZOVRELAY_Startup(nullptr);
    const std::wstring repository = Wide(argv[1]);
    std::wstring url = Wide(argv[2]);
    ZOVRELAY_Source source{};
    source.url = url.data();

    const auto start = std::chrono::steady_clock::now();
    ZOVRELAY_Context* context = nullptr;
    ZOVRELAY_Status status = ZOVRELAY_CreateContext(&context, repository.c_str());
    ZOVRELAY_Information* information = nullptr;
    if (status > 0) status = ZOVRELAY_Duplicate(context, products.data(), products.size(), &source, 1, &information);
    if (information != nullptr) ZOVRELAY_DestroyData(information);
    if (context != nullptr) ZOVRELAY_DestroyContext(context);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    unlink("/dev/shm/sem.zovrelay");  // as the module does after every context
    if (status <= 0) {
        std::fprintf(stderr, "relaymirror: status %d\n", status);
        return 1;
    }
    std::printf("%.6f\n", seconds);
    return 0;
}
