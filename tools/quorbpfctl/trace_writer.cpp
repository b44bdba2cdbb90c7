#include "tools/quorbpfctl/trace_writer.h"

#include <cinttypes>

#include "tools/quorbpfctl/json_line.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

// Nanoseconds as microseconds with three decimals, exactly.
std::string Micros(int64_t ns) {
    char text[32];
    const char* sign = ns < 0 ? "-" : "";
    const uint64_t magnitude = ns < 0 ? 0 - static_cast<uint64_t>(ns) : static_cast<uint64_t>(ns);
    snprintf(text, sizeof(text), "%s%" PRIu64 ".%03" PRIu64, sign, magnitude / 1000,
             magnitude % 1000);
    return text;
}

}  // namespace

void TraceArgs::Key(const char* key) {
    if (!body_.empty()) body_ += ',';
    body_ += '"';
    body_ += key;
    body_ += "\":";
}

TraceArgs& TraceArgs::Add(const char* key, int64_t value) {
    Key(key);
    body_ += std::to_string(value);
    return *this;
}

TraceArgs& TraceArgs::Add(const char* key, const std::string& value) {
    Key(key);
    body_ += JsonQuote(value);
    return *this;
}

TraceWriter::TraceWriter(FILE* out) : out_(out) {
    Put("{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n");
}

void TraceWriter::Put(const std::string& text) {
    if (failed_ || closed_) return;
    if (fwrite(text.data(), 1, text.size(), out_) != text.size()) {
        failed_ = true;
        return;
    }
    bytes_ += text.size();
}

void TraceWriter::Write(const char* phase, int64_t tsNs, int32_t pid, const std::string& name,
                        const std::string& args) {
    std::string line = events_ == 0 ? "" : ",\n";
    line += "{\"ph\":\"";
    line += phase;
    line += "\",\"ts\":" + Micros(tsNs) + ",\"pid\":" + std::to_string(pid);
    // Metadata belongs to the process; everything else to its main thread.
    if (phase[0] != 'M') line += ",\"tid\":" + std::to_string(pid);
    if (!name.empty()) line += ",\"name\":" + JsonQuote(name);
    if (phase[0] == 'i') line += ",\"s\":\"t\"";
    if (!args.empty()) line += ",\"args\":{" + args + "}";
    line += '}';
    Put(line);
    ++events_;
}

void TraceWriter::ProcessName(int64_t tsNs, int32_t pid, const std::string& name) {
    Write("M", tsNs, pid, "process_name", TraceArgs().Add("name", name).Body());
}

void TraceWriter::ProcessSortIndex(int64_t tsNs, int32_t pid, int32_t index) {
    Write("M", tsNs, pid, "process_sort_index", TraceArgs().Add("sort_index", index).Body());
}

void TraceWriter::ProcessLabels(int64_t tsNs, int32_t pid, const std::string& labels) {
    Write("M", tsNs, pid, "process_labels", TraceArgs().Add("labels", labels).Body());
}

void TraceWriter::Begin(int64_t tsNs, int32_t pid, const std::string& name, const TraceArgs& args) {
    Write("B", tsNs, pid, name, args.Body());
}

void TraceWriter::End(int64_t tsNs, int32_t pid, const TraceArgs& args) {
    Write("E", tsNs, pid, "", args.Body());
}

void TraceWriter::Counter(int64_t tsNs, int32_t pid, const std::string& name,
                          const TraceArgs& values) {
    Write("C", tsNs, pid, name, values.Body());
}

void TraceWriter::Instant(int64_t tsNs, int32_t pid, const std::string& name,
                          const TraceArgs& args) {
    Write("i", tsNs, pid, name, args.Body());
}

bool TraceWriter::Close() {
    if (!closed_) {
        Put("\n]}\n");
        closed_ = true;
        if (fflush(out_) != 0) failed_ = true;
    }
    return !failed_;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
