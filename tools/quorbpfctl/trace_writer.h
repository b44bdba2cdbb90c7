// TraceWriter: a trace in the JSON trace-event format (an object holding a
// "traceEvents" array), written event by event as the recording goes, so a
// long recording never sits in memory. Perfetto's UI and chrome://tracing
// open the result.
//
//   TraceWriter trace(file);
//   trace.ProcessName(ts, 42, "bash");
//   trace.Begin(ts, 42, "bash", TraceArgs().Add("ppid", 1));
//   trace.Counter(ts, 42, "threads", TraceArgs().Add("value", 3));
//   trace.Close();   // the closing brackets: the file is valid from here on
//
// Times are CLOCK_MONOTONIC nanoseconds; the format's unit is the
// microsecond, written with three decimals so that no ordering is lost.
// Every event but the metadata sits on the process's main-thread track
// (tid = pid). Text is
// escaped so that any byte sequence (a hostile process name) stays valid
// JSON. Not thread-safe: one owner.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace Quor {
namespace Bpf {
namespace Ctl {

// The "args" object of an event.
class TraceArgs {
public:
    TraceArgs& Add(const char* key, int64_t value);
    TraceArgs& Add(const char* key, const std::string& value);
    const std::string& Body() const { return body_; }

private:
    void Key(const char* key);
    std::string body_;
};

class TraceWriter {
public:
    // Writes the opening of the trace at once.
    explicit TraceWriter(FILE* out);

    void ProcessName(int64_t tsNs, int32_t pid, const std::string& name);
    // Processes with the same index are listed together (by pid within).
    void ProcessSortIndex(int64_t tsNs, int32_t pid, int32_t index);
    void ProcessLabels(int64_t tsNs, int32_t pid, const std::string& labels);
    void Begin(int64_t tsNs, int32_t pid, const std::string& name, const TraceArgs& args);
    void End(int64_t tsNs, int32_t pid, const TraceArgs& args);
    // One counter track per name and arg within the process.
    void Counter(int64_t tsNs, int32_t pid, const std::string& name, const TraceArgs& values);
    void Instant(int64_t tsNs, int32_t pid, const std::string& name, const TraceArgs& args);

    // Ends the array and the object and flushes; false when a write failed
    // at any point (full disk, closed pipe).
    bool Close();

    uint64_t events() const { return events_; }
    uint64_t bytes() const { return bytes_; }
    bool failed() const { return failed_; }

private:
    void Write(const char* phase, int64_t tsNs, int32_t pid, const std::string& name,
               const std::string& args);
    void Put(const std::string& text);

    FILE* out_;
    uint64_t events_ = 0;
    uint64_t bytes_ = 0;
    bool failed_ = false;
    bool closed_ = false;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
