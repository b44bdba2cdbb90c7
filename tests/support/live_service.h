// The real service in an ISOLATED test process (started once): both programme
// sets loaded, BpfServiceMain() run, and helpers to watch what it holds
// (descriptors, heap, error log) and what its clients receive.
#pragma once

#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>

#include "diag/quor_bpf_error_log.h"
#include "quor/bpf_service_main.h"
#include "quor/quor_bpf_records.h"
#include "service/quor_bpf_service_settings.h"
#include "tests/support/proc_self.h"
#include "tools/loader/quor_bpf_loader.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers' allocator replaces malloc; it counts what is in use.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#define QUOR_TEST_SANITIZER_HEAP 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace quortest {

using Clock = std::chrono::steady_clock;

inline constexpr auto kAllTypes = [] {
    std::array<int32_t, std::size(Quor::Bpf::kQuorEventTypes)> types = {};
    for (size_t i = 0; i < types.size(); ++i)
        types[i] = static_cast<int32_t>(Quor::Bpf::kQuorEventTypes[i].type);
    return types;
}();

inline uint64_t StatusWord(int index) {
    const int fd = bpf_obj_get(Quor::Bpf::RINGBUF_STATUS_PATHS[index]);
    if (fd < 0) return 0;
    uint32_t key = QUOR_STATUS_KEY_FLAGS;
    uint64_t value = 0;
    (void)bpf_map_lookup_elem(fd, &key, &value);
    close(fd);
    return value;
}

// Loads and pins the programmes, starts the service and waits until the main
// monitor has enabled them all. Empty on success, else why not. `beforeStart`
// may change the pins first.
inline std::string StartLiveService(const std::function<void()>& beforeStart = nullptr) {
    if (geteuid() != 0) return "needs root to load BPF programmes";
    Quor::Bpf::QuorBpfLoadReport report;
    if (Quor::Bpf::QuorBpfLoader::Load(Quor::Bpf::QuorBpfLoader::Options(), &report) != 0) {
        std::string why = "loading the programmes failed:";
        for (const auto& line : report.Lines()) why += "\n  " + line;
        return why;
    }
    (void)mkdir("/data/quorlog", 0775);
    (void)mkdir("/data/quorlog/stability", 0775);
    (void)mkdir(Quor::Bpf::BPF_SERVICE_LOG_DIR, 0775);
    utsname name = {};
    int major = 0, minor = 0;
    (void)uname(&name);
    (void)sscanf(name.release, "%d.%d", &major, &minor);
    android::base::SetProperty("ro.kernel.version",
                               std::to_string(major) + "." + std::to_string(minor));
    android::base::SetProperty("sys.quor_bpf_ready", "1");
    if (beforeStart) beforeStart();
    if (Quor::Bpf::BpfServiceMain() != 1) return "BpfServiceMain did not start the service";
    const bool enabled = WaitFor(
        [] {
            return StatusWord(Quor::Bpf::RINGBUF_MAIN) ==
                   (QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON);
        },
        std::chrono::seconds(30), 20);
    return enabled ? std::string() : "the main monitor never enabled the programmes";
}

// Ends the process without static destructors (the monitors still use the
// service); under AddressSanitizer a leak fails the run.
[[noreturn]] inline void EndProcess(int result) {
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0 && result == 0) result = 1;
#endif
    fflush(nullptr);
    _exit(result);
}

// Heap bytes in use by this process (every arena).
inline size_t HeapBytes() {
#ifdef QUOR_TEST_SANITIZER_HEAP
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;  // large blocks are mapped on their own
#endif
}

// Records in the service's error log with `code` (codes are one digit).
inline size_t ErrorLogCount(int code) {
    return CountLines(Quor::Bpf::BPF_SERVICE_ERROR_LOG, "ErrorCode: " + std::to_string(code));
}

// The status the service answers to the request `send` makes with the
// callback it is given; INT32_MIN when none came within `limit`.
template <typename Send>
int32_t Answer(const Send& send, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    auto answer = std::make_shared<std::promise<int32_t>>();
    auto future = answer->get_future();
    if (!send([answer](int32_t status) { answer->set_value(status); })) return INT32_MIN;
    return future.wait_for(limit) == std::future_status::ready ? future.get() : INT32_MIN;
}

// Subscribes `client` (a QuorBpfClient) to `type`; true once the service
// accepted within `limit`.
template <typename Client>
bool Subscribed(Client& client, int32_t type,
                std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    return Answer([&](auto done) { return client.subscribe(type, done); }, limit) == 0;
}

}  // namespace quortest
