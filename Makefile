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
