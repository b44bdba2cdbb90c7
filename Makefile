# Two commands do everything: `make run` and `make test`. Each installs what
# is missing (Debian packages), configures, builds and does its job.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test run bench clean format

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest -j $(JOBS) --output-on-failure

# The daemon loads and pins the BPF programmes itself and removes its pins
# when Ctrl-C stops it.
run: build
	@$(BUILD)/tools/quorbpfd --unpin-on-exit $(ARGS)

# The benchmarks start the service, so they run in private namespaces.
bench: build
	@tests/run_isolated.sh $(BUILD)/bench/fanout_bench $(BENCH_ARGS)

format:
	@find include service ipc bpf diag tools tests -name '*.h' -o -name '*.cpp' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)
