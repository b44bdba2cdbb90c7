// Persistent log of serious service faults.
//
// Each fault is one multi-line record (time, pid, tid, command line, thread
// name, code, message) written at the top of error.log, which is bounded to
// the new record plus 4999 older lines. InitBpfServiceErrorLog() runs once per
// service start and keeps the previous run's file as error.old.log.
//
// Codes: 1 send retries exhausted, 2 damaged frame, 3-6 package queue full
// (raw, second-level, request, response), 7-8 package too large for the write
// buffer. RecordBpfServiceErrorInfo is callable from any thread: writers take
// turns, and each writes the new file beside the old one ("error.log.tmp")
// and renames it over, so the log is always one whole version. Callers that
// hold a lock others wait for write after releasing it: a rewrite of up to
// 5000 lines takes milliseconds.
#pragma once

#include <cstdint>
#include <string>

#include "diag/quor_bpf_rate_limiter.h"

namespace Quor {
namespace Bpf {

constexpr const char* BPF_SERVICE_LOG_DIR = "/data/quorlog/stability/quorbpfframework/";
constexpr const char* BPF_SERVICE_ERROR_LOG = "/data/quorlog/stability/quorbpfframework/error.log";
constexpr const char* BPF_SERVICE_ERROR_OLD_LOG =
    "/data/quorlog/stability/quorbpfframework/error.old.log";

int InitBpfServiceErrorLog();
void RecordBpfServiceErrorInfo(int32_t code, const std::string& message);
// For faults that come in floods (a queue that overflows again and again):
// records only what `limiter` allows, and the next record written says how
// many were held back before it. True when a record was written.
bool RecordBpfServiceErrorInfoLimited(RateLimiter* limiter, int32_t code,
                                      const std::string& message);

}  // namespace Bpf
}  // namespace Quor
