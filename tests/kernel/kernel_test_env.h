// Helpers for tests that load the programme sets into the (private) bpffs of
// an isolated test: what the running kernel offers, the status word, and a
// ring-buffer reader that keeps the records of chosen processes.
#pragma once

#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "quor/quor_bpf_records.h"
#include "tools/loader/quor_bpf_loader.h"

namespace quor_test {

inline bool PathExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Whether kprobes can be attached at all on this kernel.
inline bool KernelHasKprobes() {
    return PathExists("/sys/bus/event_source/devices/kprobe") ||
           PathExists("/sys/kernel/tracing/kprobe_events");
}

// Whether the kernel has a function of that name to probe.
inline bool KernelHasFunction(const std::string& name) {
    std::ifstream symbols("/proc/kallsyms");
    for (std::string address, type, symbol; symbols >> address >> type >> symbol;) {
        if (symbol == name) return true;
        symbols.ignore(4096, '\n');  // a module's name may follow
    }
    return false;
}

inline bool TracepointExists(const std::string& subsystem, const std::string& event) {
    return PathExists("/sys/kernel/tracing/events/" + subsystem + "/" + event);
}

// Loads both programme sets into the private bpffs and gives the service's
// compatibility rules the running kernel's version; "" or why to skip.
inline std::string LoadProgrammeSets() {
    if (geteuid() != 0) return "needs root to load BPF programmes";
    if (!PathExists("/sys/kernel/btf/vmlinux")) return "the kernel has no BTF";
    utsname name = {};
    (void)uname(&name);
    int major = 0, minor = 0;
    (void)sscanf(name.release, "%d.%d", &major, &minor);
    android::base::SetProperty("ro.kernel.version",
                               std::to_string(major) + "." + std::to_string(minor));
    Quor::Bpf::QuorBpfLoadReport report;
    if (Quor::Bpf::QuorBpfLoader::Load(Quor::Bpf::QuorBpfLoader::Options(), &report) == 0)
        return "";
    for (const auto& line : report.Lines()) fprintf(stderr, "%s\n", line.c_str());
    return "the programme sets did not load";
}

inline uint64_t StatusGet(int statusFd, uint32_t key) {
    uint64_t value = 0;
    (void)bpf_map_lookup_elem(statusFd, &key, &value);
    return value;
}

inline bool StatusSet(int statusFd, uint32_t key, uint64_t value) {
    return bpf_map_update_elem(statusFd, &key, &value, BPF_ANY) == 0;
}

template <typename T>
T As(const std::string& bytes) {
    T value{};
    memcpy(&value, bytes.data(), std::min(sizeof(T), bytes.size()));
    return value;
}

// Collects the records of a pinned ring buffer, from those already waiting
// when it is made, that `keep` accepts (all when unset); others are dropped
// as they arrive so that a busy machine does not fill memory.
class RingReader {
public:
    explicit RingReader(const std::string& pinPath) : fd_(bpf_obj_get(pinPath.c_str())) {
        if (fd_ >= 0) rb_ = ring_buffer__new(fd_, &RingReader::OnRecord, this, nullptr);
        Drain();
        records.clear();
    }
    ~RingReader() {
        ring_buffer__free(rb_);
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return rb_ != nullptr; }
    void Drain() { (void)ring_buffer__consume(rb_); }

    // Polls until `done` holds or the deadline passes; returns `done()`.
    bool PollUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            (void)ring_buffer__poll(rb_, 50);
        }
        return true;
    }

    std::function<bool(const std::string&)> keep;
    std::vector<std::string> records;

private:
    static int OnRecord(void* ctx, void* data, size_t size) {
        auto* self = static_cast<RingReader*>(ctx);
        std::string bytes(static_cast<const char*>(data), size);
        if (!self->keep || self->keep(bytes)) self->records.push_back(std::move(bytes));
        return 0;
    }

    int fd_ = -1;
    ring_buffer* rb_ = nullptr;
};

}  // namespace quor_test
