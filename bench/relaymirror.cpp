// relaymirror: one mirror straight through the relay's C interface, for bench/everything_bench.lua
// to time the relay alone beside update.everything on the same source, in the same loop.
//
//   relaymirror REPOSITORY SOURCE CATALOG [MAXBANDWIDTH [HTTPSLEVEL]]
//
// Mirrors every product of CATALOG (the source's server.ini, read locally) whole at its newest
// version. Prints the seconds the mirror took; exits 1 on failure.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "harness.h"

int main(int argc, char** argv) {
    if (argc < 4 || argc > 6) {
        std::fprintf(stderr, "usage: relaymirror REPOSITORY SOURCE CATALOG [MAXBANDWIDTH [HTTPSLEVEL]]\n");
        return 2;
    }
    ZOVRELAY_Startup(nullptr);
    ZOVRELAY_Status status = 0;
    const double seconds = bench::Seconds([&] {
        status = bench::Mirror(argv[1], argv[2], argv[3], argc > 4 ? std::atoll(argv[4]) : 0, argc > 5 ? std::atoll(argv[5]) : 2);
    });
    unlink("/dev/shm/sem.zovrelay");  // as the module does after every context
    if (status <= 0) {
        std::fprintf(stderr, "relaymirror: status %d\n", status);
        return 1;
    }
    std::printf("%.6f\n", seconds);
    return 0;
}
