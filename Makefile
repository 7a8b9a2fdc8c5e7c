# Entry points for developers and CI.  The real build is CMake (see
# CMakePresets.json); this file only strings the steps together.
#
#   make deps      install missing Debian packages (native)
#   make build     configure + build the native RelWithDebInfo tree (build/default)
#   make test      build, run every test, check the exports, then build and
#                  run the unit, spawning and blackbox tests with ASan+UBSan,
#                  the service's and spawning tests with TSan, then fuzz
#   make test-asan / test-tsan   only one of the sanitizer runs
#   make demo      build, then run the module live in throwaway namespaces
#   make bench     measure the module against the bare iptables tools, the
#                  NFLOG listener under bursts of logged packets, isolation
#                  taking hold, and the isolation classifiers' cost per packet
#   make aarch64   cross build for AArch64, check the library's architecture,
#                  run the unit and blackbox tests under qemu-user
#   make clean     remove the preset build trees

SHELL := /bin/bash
.SHELLFLAGS := -euo pipefail -c
MAKEFLAGS += --no-print-directory
.DEFAULT_GOAL := build

JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE ?= cmake
CTEST ?= ctest
CTEST_ARGS ?=
FUZZ_SECONDS ?= 60

BUILD_DIRS := build/default build/asan build/tsan build/aarch64 build/fuzz build/bench
BENCH_ARGS ?=
NFLOG_BENCH_ARGS ?=
ISOLATION_BENCH_ARGS ?=
CLASSIFIER_BENCH_ARGS ?=

.PHONY: all deps deps-aarch64 build build-asan build-tsan test test-default test-asan test-tsan \
        check-exports demo bench aarch64 build-aarch64 test-aarch64 check-arch-aarch64 clean

all: build

deps:
	@bash scripts/install-deps.sh

deps-aarch64:
	@bash scripts/install-deps.sh aarch64

# --- native ------------------------------------------------------------------

build: deps
	$(CMAKE) --preset default
	$(CMAKE) --build --preset default -j $(JOBS)

check-exports: build
	bash scripts/check-exports.sh build/default/libfirewall.so

test-default: build
	$(CTEST) --preset default $(CTEST_ARGS)

build-asan: deps
	$(CMAKE) --preset asan
	$(CMAKE) --build --preset asan -j $(JOBS)

test-asan: build-asan
	$(CTEST) --preset asan $(CTEST_ARGS)

build-tsan: deps
	$(CMAKE) --preset tsan
	$(CMAKE) --build --preset tsan -j $(JOBS)

test-tsan: build-tsan
	$(CTEST) --preset tsan $(CTEST_ARGS)

# Each step stops the run when it fails, so the last ctest summary in the
# log is that of the run that failed, or of the TSan run when all passed.
# The runs go from the broadest to the narrowest.
test: build
	@echo "=== exported symbols ==="
	bash scripts/check-exports.sh build/default/libfirewall.so
	@echo "=== all tests (build/default) ==="
	$(CTEST) --preset default $(CTEST_ARGS)
	@echo "=== unit, spawning + blackbox tests with ASan+UBSan (build/asan) ==="
	$(CMAKE) --preset asan
	$(CMAKE) --build --preset asan -j $(JOBS)
	$(CTEST) --preset asan $(CTEST_ARGS)
	@echo "=== service + spawning tests with TSan (build/tsan) ==="
	$(CMAKE) --preset tsan
	$(CMAKE) --build --preset tsan -j $(JOBS)
	$(CTEST) --preset tsan $(CTEST_ARGS)
	@echo "=== fuzzing the listing, request and netlink parsers for $(FUZZ_SECONDS) s (build/fuzz) ==="
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/run-fuzz.sh

demo: build
	bash scripts/demo.sh build/default

# The module against the bare iptables tools, then the NFLOG listener under
# bursts at rising rates, then how fast isolation takes hold and lets go
# through firewall-host, in network namespaces (root), then what the
# isolation classifiers add to a packet (BPF_PROG_TEST_RUN, root).
#   make bench BENCH_ARGS="--scales 10000 --backends nft --repeat 5"
#   make bench NFLOG_BENCH_ARGS="--rates 50000,max --backends nft"
#   make bench ISOLATION_BENCH_ARGS="--exclusions 10,1000,5000 --isolation-backends ebpf,iptables"
#   make bench CLASSIFIER_BENCH_ARGS="--exclusions 0,10000 --ports 0 --repeat 100000"
bench: deps
	$(CMAKE) -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DQEL_BUILD_TESTS=OFF
	$(CMAKE) --build build/bench --target firewall_bench nflog_bench isolation_bench classifier_bench firewall-host firewall -j $(JOBS)
	./build/bench/bench/firewall_bench $(BENCH_ARGS)
	./build/bench/bench/nflog_bench $(NFLOG_BENCH_ARGS)
	./build/bench/bench/isolation_bench --host build/bench/firewall-host $(ISOLATION_BENCH_ARGS)
	./build/bench/bench/classifier_bench $(CLASSIFIER_BENCH_ARGS)

# --- AArch64 (cross + qemu-user) -----------------------------------------------

build-aarch64: deps-aarch64
	$(CMAKE) --preset aarch64
	$(CMAKE) --build --preset aarch64 -j $(JOBS)

check-arch-aarch64: build-aarch64
	@out=$$(file -L build/aarch64/libfirewall.so); echo "$$out"; \
	if ! grep -q 'ARM aarch64' <<<"$$out"; then \
	  echo "aarch64: build/aarch64/libfirewall.so is not an AArch64 binary" >&2; exit 1; fi
	bash scripts/check-exports.sh build/aarch64/libfirewall.so

test-aarch64: check-arch-aarch64
	$(CTEST) --preset aarch64 $(CTEST_ARGS)

aarch64: test-aarch64

# --------------------------------------------------------------------------------

clean:
	rm -rf $(BUILD_DIRS)
