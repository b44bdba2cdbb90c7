// Turns a record received from the service into one line of text for a
// person or one JSON object for a script (`quorbpfctl watch`).
//
// Both outputs come from the client library's decoder (QuorDecodeEvent), which
// checks the length and the record's own type field before reading anything,
// so that a short or foreign record becomes an error line instead of garbage.
//
// Text: local time, type name, pid, comm, then the record's other fields;
// sizes in KiB or MiB, bytes a terminal would interpret escaped as \xNN:
//   14:05:12.345 sched_task_create            2033 cc1plus          ppid=1978 tid=2033 kind=process
// JSON: every field under its struct name, sizes in bytes, plus "time" (local,
// ISO 8601 with milliseconds and offset), "type", "name" and, for kernel
// records, "ts_ns":
//   {"time":"2026-11-21T14:05:12.345+0000","type":2,"name":"sched_task_create","ts_ns":...}
//
// Kernel records carry CLOCK_MONOTONIC nanoseconds; EventContext gives the
// wall and monotonic clocks read when the record arrived, which turn that into
// local time. Service-composed records (50001 to 50004) carry no time and are
// shown at their arrival. Records without a comm field take one from
// EventContext::commOf when given (text only; JSON shows record fields only).
//
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "quor/quorbpf_event_views.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

struct EventContext {
    int64_t realtimeNs = 0;   // CLOCK_REALTIME when the record arrived
    int64_t monotonicNs = 0;  // CLOCK_MONOTONIC at the same moment
    // Name of a process, for records that do not carry one; "" when unknown.
    std::function<std::string(int32_t pid)> commOf;

    // The two clocks now.
    static EventContext Now();
};

// The client library's decoder is the only one; these names keep the
// commands short.
using EventField = QuorEventField;
using DecodedEvent = QuorDecodedEvent;
inline DecodedEvent DecodeEvent(uint32_t type, const void* data, size_t length) {
    return QuorDecodeEvent(type, data, length);
}

std::string FormatEventText(const DecodedEvent& event, const EventContext& context);
std::string FormatEventJson(const DecodedEvent& event, const EventContext& context);

// Bytes as "512 KiB", "1.5 KiB", "12.3 MiB" (negative values keep their sign).
std::string FormatSize(int64_t bytes);
// A signed change: "+12.3 MiB", "-4 KiB", "0 KiB".
std::string FormatSizeChange(int64_t bytes);
// Non-printable and non-ASCII bytes as \xNN, backslash as \\.
std::string PrintableText(const std::string& text);
// Local time of an epoch time in ns: "14:05:12.345", or with `iso`
// "2026-11-21T14:05:12.345+0100".
std::string FormatLocalTime(int64_t epochNs, bool iso);
// When the event happened, in epoch ns.
int64_t EventEpochNs(const DecodedEvent& event, const EventContext& context);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
