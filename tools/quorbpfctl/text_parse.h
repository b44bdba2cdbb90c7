// Parsing helpers shared by the readers of the daemon's dump files (task
// dump, statistics): whole lines and whole decimal numbers, nothing more.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {
namespace Ctl {

// The lines of `text` without their '\n'; a final line needs no newline.
inline std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// True when all of `text` is one decimal integer that fits 64 bits.
inline bool ParseInt64(const std::string& text, int64_t* value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long long parsed = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    *value = parsed;
    return true;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
