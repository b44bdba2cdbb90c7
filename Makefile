# Two commands do everything: `make run` and `make test`. Each installs what
# is missing (Debian packages), configures, builds and does its job.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test run daemon bench clean format

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest -j $(JOBS) --output-on-failure

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
	@find include service ipc bpf diag tools tests -name '*.h' -o -name '*.cpp' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)

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

# `make test` runs the arm64 checks too, before the native suite: about 300
# CPU-seconds to build from scratch (under 3 minutes on two idle cores), then
# 15 seconds of emulated tests; seconds once built. The arm64 packages go
# in before the native configure, which then also builds the arm64 programme
# objects for arm64_objects_test. `make test ARM64=0` leaves all that out.
ARM64 ?= 1
ifeq ($(ARM64),1)
test: test-arm64
ifneq ($(filter test,$(MAKECMDGOALS)),)
configure: arm64-deps
endif
endif
