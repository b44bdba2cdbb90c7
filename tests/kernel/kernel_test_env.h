// Helpers for tests that load the programme sets into the (private) bpffs of
// an isolated test: what the running kernel offers, the status word, and a
// ring-buffer reader that collects the records of chosen processes.
#pragma once

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "quor/quor_bpf_records.h"

namespace quor_test {

inline bool PathExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Whether kprobes can be attached at all on this kernel.
inline bool KernelHasKprobes() {
    return PathExists("/sys/bus/event_source/devices/kprobe") ||
           PathExists("/sys/kernel/tracing/kprobe_events");
}

inline bool TracepointExists(const std::string& subsystem, const std::string& event) {
    return PathExists("/sys/kernel/tracing/events/" + subsystem + "/" + event);
}

inline uint64_t StatusGet(int statusFd, uint32_t key) {
    uint64_t value = 0;
    (void)bpf_map_lookup_elem(statusFd, &key, &value);
    return value;
}

inline bool StatusSet(int statusFd, uint32_t key, uint64_t value) {
    return bpf_map_update_elem(statusFd, &key, &value, BPF_ANY) == 0;
}

// Collects every record of a pinned ring buffer as raw bytes.
class RingReader {
public:
    explicit RingReader(const std::string& pinPath) {
        fd_ = bpf_obj_get(pinPath.c_str());
        if (fd_ >= 0) rb_ = ring_buffer__new(fd_, &RingReader::OnRecord, this, nullptr);
    }
    ~RingReader() {
        if (rb_ != nullptr) ring_buffer__free(rb_);
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return rb_ != nullptr; }

    // Drains what is there now.
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

    // Records whose payload matches `keep` (type, bytes); others are dropped
    // as they arrive so that a busy machine does not fill memory.
    void Keep(std::function<bool(uint32_t, const std::string&)> keep) { keep_ = std::move(keep); }
    std::vector<std::string>& records() { return records_; }

private:
    static int OnRecord(void* ctx, void* data, size_t size) {
        auto* self = static_cast<RingReader*>(ctx);
        std::string bytes(static_cast<const char*>(data), size);
        uint32_t type = 0;
        if (size >= sizeof(type)) memcpy(&type, data, sizeof(type));
        if (!self->keep_ || self->keep_(type, bytes)) self->records_.push_back(std::move(bytes));
        return 0;
    }

    int fd_ = -1;
    ring_buffer* rb_ = nullptr;
    std::function<bool(uint32_t, const std::string&)> keep_;
    std::vector<std::string> records_;
};

// The pid a record is about, for the record types that carry one.
inline int RecordPid(const std::string& bytes) {
    uint32_t type = 0;
    memcpy(&type, bytes.data(), sizeof(type));
    auto field = [&](size_t offset) {
        int32_t v = -1;
        if (bytes.size() >= offset + 4) memcpy(&v, bytes.data() + offset, 4);
        return v;
    };
    switch (type) {
        case QUOR_EVENT_TASK_CREATE:
            return field(offsetof(quor_fork_record, pid));
        case QUOR_EVENT_TASK_EXIT:
            return field(offsetof(quor_exit_record, pid));
        case QUOR_EVENT_RSS_STAT:
            return field(offsetof(quor_rss_record, pid));
        case QUOR_EVENT_CGROUP_ATTACH:
            return field(offsetof(quor_cgroup_attach_record, pid));
        case QUOR_EVENT_FD_UPDATE:
            return field(offsetof(quor_fd_update_record, pid));
        case QUOR_EVENT_DMABUF_SIZE:
            return field(offsetof(quor_dmabuf_size_record, pid));
        case QUOR_EVENT_DMABUF_UPDATE:
            return field(offsetof(quor_dmabuf_update_record, pid));
        default:
            return -1;
    }
}

template <typename T>
T As(const std::string& bytes) {
    T value{};
    memcpy(&value, bytes.data(), std::min(sizeof(T), bytes.size()));
    return value;
}

}  // namespace quor_test
