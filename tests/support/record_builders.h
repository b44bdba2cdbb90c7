// Kernel records of known bytes for the tests that feed them to a consumer.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>

#include "quor/quor_bpf_records.h"

namespace quortest {

inline quor_fork_record Fork(int32_t pid, int32_t ppid, uint64_t ts, uint32_t kind,
                             const char* comm) {
    quor_fork_record r = {};
    r.header = {QUOR_EVENT_TASK_CREATE, 0, ts};
    r.pid = r.tid = pid;
    r.ppid = ppid;
    r.kind = kind;
    strncpy(r.comm, comm, sizeof(r.comm) - 1);
    return r;
}

inline quor_exit_record Exit(int32_t pid, uint64_t ts, uint32_t kind, const char* comm) {
    quor_exit_record r = {};
    r.header = {QUOR_EVENT_TASK_EXIT, 0, ts};
    r.pid = pid;
    r.kind = kind;
    strncpy(r.comm, comm, sizeof(r.comm) - 1);
    return r;
}

inline quor_rss_record Rss(int32_t pid, uint64_t ts, int32_t member, int64_t size) {
    quor_rss_record r = {};
    r.header = {QUOR_EVENT_RSS_STAT, 0, ts};
    r.pid = pid;
    r.member = member;
    r.size = size;
    return r;
}

// Hands a whole record to `to` as a receiver gets it: type, bytes, length.
template <typename Record>
void Feed(const Record& record, const std::function<void(uint32_t, const uint8_t*, size_t)>& to) {
    uint32_t type = 0;
    memcpy(&type, &record, sizeof(type));
    to(type, reinterpret_cast<const uint8_t*>(&record), sizeof(record));
}

}  // namespace quortest
