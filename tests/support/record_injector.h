// Runs the record-injector BPF programme: writes exact records into a pinned
// ring buffer at kernel speed, as if a kernel programme had written them.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "quor_record_injector.h"

namespace quor_test {

class RecordInjector {
public:
    RecordInjector() = default;
    ~RecordInjector() {
        if (object_ != nullptr) bpf_object__close(object_);
        if (ringFd_ >= 0) close(ringFd_);
        if (statusFd_ >= 0) close(statusFd_);
    }
    RecordInjector(const RecordInjector&) = delete;
    RecordInjector& operator=(const RecordInjector&) = delete;

    // Loads the injector with its ring buffer replaced by the one pinned at
    // `ringPin` and, when `statusPin` is given, its status map by that one
    // (QUOR_INJECT_PACED then wakes the reader exactly as the real
    // programmes do); `error` says why when it returns false.
    bool Open(const std::string& ringPin, std::string* error, const std::string& statusPin = "") {
        ringFd_ = bpf_obj_get(ringPin.c_str());
        if (ringFd_ < 0) return Fail(error, "open " + ringPin);
        if (!statusPin.empty()) {
            statusFd_ = bpf_obj_get(statusPin.c_str());
            if (statusFd_ < 0) return Fail(error, "open " + statusPin);
        }
        object_ = bpf_object__open_file(QUOR_RECORD_INJECTOR_OBJECT, nullptr);
        if (object_ == nullptr) return Fail(error, "open " QUOR_RECORD_INJECTOR_OBJECT);
        bpf_map* ring = bpf_object__find_map_by_name(object_, "ringbuf_map");
        if (ring == nullptr || bpf_map__reuse_fd(ring, ringFd_) != 0) {
            return Fail(error, "reuse ring buffer");
        }
        if (statusFd_ >= 0) {
            bpf_map* status = bpf_object__find_map_by_name(object_, "ringbuf_status");
            if (status == nullptr || bpf_map__reuse_fd(status, statusFd_) != 0) {
                return Fail(error, "reuse status map");
            }
        }
        if (bpf_object__load(object_) != 0) return Fail(error, "load injector");
        bpf_program* prog = bpf_object__find_program_by_name(object_, "inject");
        if (prog == nullptr) return Fail(error, "find inject");
        progFd_ = bpf_program__fd(prog);
        return true;
    }

    // Writes `count` copies of `record` (16 to QUOR_INJECT_MAX_LEN bytes).
    // With `seqOffset` set, each copy carries a running 64-bit sequence
    // there, starting at `seqStart`. Returns the copies the ring buffer
    // refused, or -1 when the programme could not run.
    int Inject(const void* record, size_t len, uint32_t count = 1, uint32_t flags = 0,
               uint32_t seqOffset = QUOR_INJECT_NO_SEQ, uint64_t seqStart = 0) {
        if (len < 16 || len > QUOR_INJECT_MAX_LEN) return -1;
        quor_inject_args args = {};
        args.len = static_cast<__u32>(len);
        args.count = count;
        args.flags = flags;
        args.seq_offset = seqOffset;
        args.seq_start = seqStart;
        memcpy(args.data, record, len);
        LIBBPF_OPTS(bpf_test_run_opts, opts, .ctx_in = &args, .ctx_size_in = sizeof(args));
        if (bpf_prog_test_run_opts(progFd_, &opts) != 0) return -1;
        return static_cast<int>(opts.retval);
    }

    template <typename T>
    int Inject(const T& record, uint32_t count = 1) {
        return Inject(&record, sizeof(record), count);
    }

private:
    static bool Fail(std::string* error, const std::string& what) {
        if (error != nullptr) *error = what + ": " + strerror(errno);
        return false;
    }

    bpf_object* object_ = nullptr;
    int ringFd_ = -1;
    int statusFd_ = -1;
    int progFd_ = -1;
};

}  // namespace quor_test
