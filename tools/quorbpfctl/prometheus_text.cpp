#include "tools/quorbpfctl/prometheus_text.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

std::string Escape(const std::string& text, bool quote) {
    std::string out;
    for (const char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '"' && quote) {
            out += "\\\"";
        } else if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) {
            // The format is UTF-8 and a comm is any bytes: keep the line
            // valid rather than the byte.
            out += '?';
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace

void PrometheusText::Family(const char* name, const char* type, const char* help) {
    text_ += std::string("# HELP ") + name + " " + Escape(help, false) + "\n";
    text_ += std::string("# TYPE ") + name + " " + type + "\n";
}

void PrometheusText::Sample(const char* name, const PrometheusLabels& labels, int64_t value) {
    text_ += name;
    if (!labels.empty()) {
        text_ += '{';
        for (size_t i = 0; i < labels.size(); ++i) {
            if (i != 0) text_ += ',';
            text_ += labels[i].first + "=\"" + Escape(labels[i].second, true) + "\"";
        }
        text_ += '}';
    }
    text_ += " " + std::to_string(value) + "\n";
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
