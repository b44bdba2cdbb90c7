# Two commands do everything: `make run` and `make test`. Each installs what
# is missing (Debian packages), configures, builds and does its job.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test run daemon bench clean format
.PHONY: unit stress test-all test-asan test-tsan fuzz-build fuzz-smoke fuzz

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# make test (what CI runs): the suite, the BPF tests inside Debian's 6.1
# kernels, amd64 and arm64 (test-vm), the arm64 build with its tests under qemu, the
# stress and fault tests, the suite under AddressSanitizer +
# UndefinedBehaviorSanitizer and the threaded tests under ThreadSanitizer (any
# report fails), and a short run of every fuzzer. Each stage is also a target
# of its own.
test: unit test-vm test-arm64 stress test-asan test-tsan fuzz-smoke

# Kept for habit: the same as `make test`.
test-all: test

unit: build
	@cd $(BUILD) && ctest -j $(JOBS) --output-on-failure -LE stress

# The stress and fault tests run one at a time: they load the machine.
stress: build
	@cd $(BUILD) && ctest -j 1 --output-on-failure -L stress

# Sanitizer builds: separate build directories, no benchmarks.
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
# -O1: the sanitizers' usual level, far quicker to build than -O2.
SANITIZER_CMAKE_FLAGS = -DQUOR_BUILD_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=Debug \
	-DCMAKE_CXX_FLAGS_DEBUG="-g -O1" -DCMAKE_C_FLAGS_DEBUG="-g -O1"
# The client storm runs for a minute in the plain build; shorter under the
# (much slower) sanitizers.
SANITIZER_STRESS_SECONDS ?= 20

test-asan: deps
	@cmake -S . -B $(ASAN_BUILD) -DQUOR_SANITIZE=address,undefined $(SANITIZER_CMAKE_FLAGS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ctest -j $(JOBS) --output-on-failure -LE stress
	@cd $(ASAN_BUILD) && QUOR_STRESS_SECONDS=$(SANITIZER_STRESS_SECONDS) ctest -j 1 --output-on-failure -L stress

test-tsan: deps
	@cmake -S . -B $(TSAN_BUILD) -DQUOR_SANITIZE=thread $(SANITIZER_CMAKE_FLAGS) >/dev/null
	@cmake --build $(TSAN_BUILD) -j $(JOBS) --target quor_concurrency_tests
	@cd $(TSAN_BUILD) && ctest -j $(JOBS) --output-on-failure -L concurrency -LE stress
	@cd $(TSAN_BUILD) && QUOR_STRESS_SECONDS=$(SANITIZER_STRESS_SECONDS) ctest -j 1 --output-on-failure -L stress

# Fuzzers: clang with libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60

fuzz-build: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DQUOR_BUILD_FUZZERS=ON \
		-DQUOR_BUILD_TESTS=OFF -DQUOR_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target quor_fuzzers

# Every fuzzer on its seeds and for a few seconds more.
fuzz-smoke: fuzz-build
	@cd $(FUZZ_BUILD) && ctest -j $(JOBS) --output-on-failure -L fuzz

# Every fuzzer for FUZZ_SECONDS (60 unless set), with a summary.
fuzz: fuzz-build
	@scripts/run-fuzzers.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# The demonstration: the daemon in the background (log in $(BUILD)/quorbpfd.log)
# and `quorbpfctl watch` in this terminal; Ctrl-C stops both and removes the
# pins. ARGS go to the daemon, WATCH="types" chooses what watch shows.
run: build
	@BUILD=$(BUILD) scripts/run-demo.sh $(ARGS)

# The daemon alone in the foreground, its log on stderr.
daemon: build
	@$(BUILD)/tools/quorbpfd --unpin-on-exit $(ARGS)

# The benchmark suite starts the daemon and loads BPF programmes, so it runs
# in private namespaces; it prints one table (bench/run_suite.sh).
# BENCH_ARGS picks programmes, e.g. BENCH_ARGS=storm_bench.
bench: build
	@tests/run_isolated.sh bench/run_suite.sh $(BUILD) $(BENCH_ARGS)

format:
	@find include service ipc bpf diag tools tests fuzz -name '*.h' -o -name '*.cpp' | xargs clang-format -i

clean:
	@rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)

# The target: arm64. `make arm64` installs the cross toolchain and the arm64
# packages (scripts/install-arm64-deps.sh) and cross builds everything,
# tests included, into $(BUILD_ARM64); `make test-arm64` runs under qemu the
# tests that need no BPF system call (CTest labels, see tests/CMakeLists.txt).
BUILD_ARM64 ?= build-arm64
ARM64_TEST_LABELS ?= unprivileged|namespaces

.PHONY: arm64-deps arm64 test-arm64 clean-arm64

arm64-deps:
	@scripts/install-arm64-deps.sh

arm64: arm64-deps
	@cmake -S . -B $(BUILD_ARM64) -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake >/dev/null
	@cmake --build $(BUILD_ARM64) -j $(JOBS)

test-arm64: arm64
	@cd $(BUILD_ARM64) && ctest -j $(JOBS) --output-on-failure -L '$(ARM64_TEST_LABELS)'

clean-arm64:
	@rm -rf $(BUILD_ARM64)

# Real kernels: Debian's kernel packages booted under qemu (TCG), the host's
# root shared read-only, the BPF-labelled tests (but the stress ones) run
# inside; one table kernel x architecture x test (scripts/test-kernels.py).
# `make test-kernels` runs every column; `make test` runs TEST_VM_COLUMNS.
KERNELS_DIR ?= $(BUILD)/test-kernels
KERNEL_COLUMNS ?= 6.1-amd64,6.12-amd64,6.1-arm64,6.12-arm64
TEST_VM_COLUMNS ?= 6.1-amd64,6.1-arm64
KERNEL_SERIES = $(sort $(foreach c,$(subst $(comma), ,$(1)),$(firstword $(subst -, ,$(c)))))
comma := ,

.PHONY: vm-deps test-kernels test-vm

vm-deps:
	@scripts/install-vm-deps.sh

test-kernels: vm-deps build arm64
	@scripts/fetch-test-kernels.sh $(KERNELS_DIR) $(call KERNEL_SERIES,$(KERNEL_COLUMNS))
	@scripts/test-kernels.py --kernels $(KERNELS_DIR) --build $(BUILD) \
		--build-arm64 $(BUILD_ARM64) --columns $(KERNEL_COLUMNS)

test-vm: vm-deps build $(if $(findstring arm64,$(TEST_VM_COLUMNS)),arm64)
	@scripts/fetch-test-kernels.sh $(KERNELS_DIR) $(call KERNEL_SERIES,$(TEST_VM_COLUMNS))
	@scripts/test-kernels.py --kernels $(KERNELS_DIR) --build $(BUILD) \
		--build-arm64 $(BUILD_ARM64) --columns $(TEST_VM_COLUMNS)

# With ARM64=1 the arm64 packages go in before the native configure, which
# then also builds the arm64 programme objects for arm64_objects_test.
# `make test` sets it.
ARM64 ?= 0
ifneq ($(filter test test-all test-arm64 arm64 test-kernels test-vm,$(MAKECMDGOALS)),)
ARM64 := 1
endif
ifeq ($(ARM64),1)
configure: arm64-deps
endif
