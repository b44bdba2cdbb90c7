// PrometheusText: metrics in Prometheus's text exposition format (0.0.4).
//
//   PrometheusText text;
//   text.Family("quorbpf_events_total", "counter", "Events received, by type.");
//   text.Sample("quorbpf_events_total", {{"type", "task_new"}}, 12);
//   serve(text.Text());
//
// Label values and help texts are escaped as the format asks (backslash,
// double quote, newline); other control bytes and bytes outside ASCII
// become '?', so a process name of any bytes still yields valid UTF-8 lines.
// Names are the caller's constants. A plain value; one owner.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Quor {
namespace Bpf {
namespace Ctl {

using PrometheusLabels = std::vector<std::pair<std::string, std::string>>;

class PrometheusText {
public:
    // The "# HELP" and "# TYPE" lines; once per metric, before its samples.
    void Family(const char* name, const char* type, const char* help);
    void Sample(const char* name, const PrometheusLabels& labels, int64_t value);
    void Sample(const char* name, int64_t value) { Sample(name, {}, value); }

    const std::string& Text() const { return text_; }

private:
    std::string text_;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
