#include "tools/quorbpfctl/event_formatter.h"

#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "diag/quor_bpf_time.h"
#include "tools/quorbpfctl/json_line.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

using Kind = EventField::Kind;

// The value of JSON field `key` among `fields` (rss_change pairs).
int64_t FieldNumber(const std::vector<EventField>& fields, const char* key) {
    for (const EventField& field : fields) {
        if (field.name != nullptr && std::string(field.name) == key) return field.number;
    }
    return 0;
}

// rss_change as a person reads it: the total and its change first, then each
// part, with its change when it moved; shmem and swap only when not zero.
std::string RssChangeText(const std::vector<EventField>& fields) {
    struct Part {
        const char* key;
        const char* name;
    };
    const Part parts[] = {
        {"rss_anon", "anon"}, {"rss_file", "file"}, {"rss_shmem", "shmem"}, {"swap", "swap"}};
    int64_t rss = 0;
    int64_t oldRss = 0;
    std::string detail;
    for (const Part& part : parts) {
        const int64_t now = FieldNumber(fields, part.key);
        const int64_t old = FieldNumber(fields, ("old_" + std::string(part.key)).c_str());
        if (std::string(part.key) != "swap") {
            rss += now;
            oldRss += old;
        }
        const bool core = std::string(part.name) == "anon" || std::string(part.name) == "file";
        if (!core && now == 0 && old == 0) continue;
        detail += std::string(" ") + part.name + "=" + FormatSize(now);
        if (now != old) detail += " (" + FormatSizeChange(now - old) + ")";
    }
    return " ppid=" + std::to_string(FieldNumber(fields, "ppid")) +
           " uid=" + std::to_string(FieldNumber(fields, "uid")) + " rss=" + FormatSize(rss) + " (" +
           FormatSizeChange(rss - oldRss) + ")" + detail;
}

std::string Trimmed(double value) {
    char text[32];
    if (value == static_cast<double>(static_cast<int64_t>(value))) {
        snprintf(text, sizeof(text), "%" PRId64, static_cast<int64_t>(value));
    } else {
        snprintf(text, sizeof(text), "%.1f", value);
    }
    return text;
}

}  // namespace

EventContext EventContext::Now() {
    EventContext context;
    context.realtimeNs = RealtimeNs();
    context.monotonicNs = MonotonicNs();
    return context;
}

std::string FormatSize(int64_t bytes) {
    const double magnitude = bytes < 0 ? -static_cast<double>(bytes) : static_cast<double>(bytes);
    const char* sign = bytes < 0 ? "-" : "";
    if (magnitude < 1024.0 * 1024.0) return sign + Trimmed(magnitude / 1024.0) + " KiB";
    char text[32];
    snprintf(text, sizeof(text), "%s%.1f MiB", sign, magnitude / (1024.0 * 1024.0));
    return text;
}

std::string FormatSizeChange(int64_t bytes) {
    if (bytes == 0) return "0 KiB";
    return (bytes > 0 ? "+" : "") + FormatSize(bytes);
}

std::string PrintableText(const std::string& text) {
    std::string out;
    for (const char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x20 || c >= 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            out += escaped;
        } else {
            out += ch;
        }
    }
    return out;
}

std::string FormatLocalTime(int64_t epochNs, bool iso) {
    const time_t seconds = static_cast<time_t>(epochNs / 1000000000);
    const int millis = static_cast<int>((epochNs % 1000000000) / 1000000);
    tm local = {};
    localtime_r(&seconds, &local);
    char text[64];
    char zone[16];
    if (!iso) {
        snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                 local.tm_sec, millis);
        return text;
    }
    strftime(zone, sizeof(zone), "%z", &local);
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03d%s", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis,
             zone);
    return text;
}

int64_t EventEpochNs(const DecodedEvent& event, const EventContext& context) {
    if (!event.hasTimestamp || event.timestampNs == 0) return context.realtimeNs;
    const int64_t age = context.monotonicNs - static_cast<int64_t>(event.timestampNs);
    // A time from the future or from before boot is not to be trusted.
    if (age < 0 || age > context.monotonicNs) return context.realtimeNs;
    return context.realtimeNs - age;
}

std::string FormatEventText(const DecodedEvent& event, const EventContext& context) {
    const std::string when = FormatLocalTime(EventEpochNs(event, context), false);
    char head[160];
    if (!event.error.empty()) {
        snprintf(
            head, sizeof(head), "%s %s %s (%zu bytes)", when.c_str(),
            event.name != nullptr ? event.name : ("type " + std::to_string(event.type)).c_str(),
            event.error.c_str(), event.length);
        return head;
    }
    std::string comm = event.comm;
    if (!event.hasComm && context.commOf) comm = context.commOf(event.pid);
    if (comm.empty()) comm = "-";
    snprintf(head, sizeof(head), "%s %-25s %7d %-16s", when.c_str(), event.name, event.pid,
             PrintableText(comm).c_str());
    std::string out = head;
    if (event.type == QUOR_SERVICE_RSS_CHANGE) {
        out += RssChangeText(event.fields);
    } else {
        for (const EventField& field : event.fields) {
            if (field.label == nullptr) continue;
            out += ' ';
            out += field.label;
            out += '=';
            switch (field.kind) {
                case Kind::kInt:
                    out += std::to_string(field.number);
                    break;
                case Kind::kUint:
                    out += std::to_string(field.unsignedNumber);
                    break;
                case Kind::kSize:
                    out += FormatSize(field.number);
                    break;
                case Kind::kText:
                    out += PrintableText(field.text);
                    break;
            }
        }
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

std::string FormatEventJson(const DecodedEvent& event, const EventContext& context) {
    JsonLine line;
    line.Add("time", FormatLocalTime(EventEpochNs(event, context), true));
    line.Add("type", event.type);
    if (event.name != nullptr) line.Add("name", event.name);
    if (!event.error.empty()) {
        line.Add("error", event.error).Add("length", static_cast<uint64_t>(event.length));
        return line.Text();
    }
    if (event.hasTimestamp) line.Add("ts_ns", event.timestampNs);
    line.Add("pid", event.pid);
    if (event.hasComm) line.Add("comm", event.comm);
    for (const EventField& field : event.fields) {
        if (field.name == nullptr) continue;
        switch (field.kind) {
            case Kind::kInt:
            case Kind::kSize:
                line.Add(field.name, field.number);
                break;
            case Kind::kUint:
                line.Add(field.name, field.unsignedNumber);
                break;
            case Kind::kText:
                line.Add(field.name, field.text);
                break;
        }
    }
    return line.Text();
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
