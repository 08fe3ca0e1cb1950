# The user's entry point: `make demo` and `make test` install what is missing, configure, build, run.

# Every Debian package the project needs, in one list. The last line holds what tests and
# benchmarks run beside the project: loopback HTTP(S) servers, proxies, certificates, curl; the
# last, the quality gates' tools (valgrind, clang with libFuzzer).
PACKAGES := g++ make cmake pkg-config lua5.2 liblua5.2-dev lua-busted googletest libgtest-dev \
            libcurl4-openssl-dev libzip-dev zlib1g-dev libssl-dev lua-cjson luarocks nlohmann-json3-dev \
            python3 openssl curl aria2 tinyproxy-bin microsocks nginx-light squid xfsprogs \
            valgrind clang libclang-rt-14-dev

BUILD_DIR := build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_FLAGS :=
FUZZ_SECONDS ?= 60

# `make test SANITIZE=1`: everything built with AddressSanitizer and UndefinedBehaviorSanitizer,
# in a build directory of its own.
ifeq ($(SANITIZE),1)
BUILD_DIR := build/sanitize
CMAKE_FLAGS += -DUPDATE_SANITIZE=ON
endif
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build test memcheck fuzz demo bench install rock clean

all: build

# Installs only what dpkg does not report as installed; `apt-get update` runs once, and only then.
deps:
	@missing=$$(for p in $(PACKAGES); do \
	    dpkg-query -W -f='$${Status}\n' "$$p" 2>/dev/null | grep -q '^install ok installed$$' || echo "$$p"; \
	  done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

# In CI (CI=true) the gates run too: the sanitizer suite, memcheck and a short fuzz run.
test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) -LE memcheck
	@if [ "$(CI)" = true ] && [ "$(SANITIZE)" != 1 ]; then \
	  $(MAKE) --no-print-directory test SANITIZE=1 CI= && \
	  $(MAKE) --no-print-directory memcheck && \
	  $(MAKE) --no-print-directory fuzz FUZZ_SECONDS=5; \
	fi

# The busted suites under valgrind: no memory errors, no definitely or indirectly lost bytes.
memcheck: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) -L memcheck

# Each libFuzzer target for FUZZ_SECONDS, from its seed corpus (clang build in build/fuzz).
fuzz: deps
	@cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DUPDATE_FUZZ=ON >/dev/null
	@cmake --build build/fuzz -j $(JOBS) --target fuzz_targets
	@sh fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# A sample source under build/demo, served over loopback HTTP, mirrored twice by examples/mirror.lua.
# Builds only what the demo runs, so that the first command shows its result soonest.
demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target update zovrelay makesource
	@sh tools/demo.sh $(BUILD_DIR) $(BUILD_DIR)/demo

bench: build
	@sh bench/run.sh

# The module, the relay beside it, the command update-mirror and its manual page, under
# $(DESTDIR)$(PREFIX), from a Release build of its own without tests (build/install).
PREFIX ?= /usr/local
install: deps
	@cmake -S . -B build/install -DCMAKE_BUILD_TYPE=Release -DUPDATE_TESTS=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null
	@cmake --build build/install -j $(JOBS)
	@DESTDIR=$(DESTDIR) cmake --install build/install

# The release rock build/dist/update-VERSION-1.src.rock from the committed tree (tools/rock.sh);
# ROCK_CHECK=1 also builds it with luarocks in an empty directory and runs the command installed.
rock: deps
	@sh tools/rock.sh $(if $(ROCK_CHECK),--check) build/dist

clean:
	rm -rf $(BUILD_DIR)
