# The user's entry point: `make demo` and `make test` install what is missing, configure, build, run.

# Every Debian package the project needs, in one list. The last line holds what tests and
# benchmarks run beside the project: loopback HTTP(S) servers, proxies, certificates, curl.
PACKAGES := g++ make cmake pkg-config lua5.2 liblua5.2-dev lua-busted googletest libgtest-dev \
            libcurl4-openssl-dev libzip-dev libssl-dev lua-cjson \
            python3 openssl curl tinyproxy-bin microsocks

BUILD_DIR := build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build test demo bench clean

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
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

demo: build
	@echo "The demo arrives with the repository operations; until then, try:"
	@echo "  LUA_CPATH='$(BUILD_DIR)/lua/?.so;;' lua5.2 -e 'local u = require \"update\"; print(u.version().string)'"
	@LUA_CPATH='$(BUILD_DIR)/lua/?.so;;' lua5.2 -e 'local u = require "update"; print(u.version().string)'

bench: build
	@sh bench/run.sh

clean:
	rm -rf $(BUILD_DIR)
