// Preloaded after the sanitizer runtimes into the lua5.2 process of a sanitized test run: it drops
// LD_PRELOAD from the environment, so the servers and tools that tests start run uninstrumented.
#include <stdlib.h>

__attribute__((constructor)) static void dropPreload() { unsetenv("LD_PRELOAD"); }
