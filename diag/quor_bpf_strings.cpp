#include "diag/quor_bpf_strings.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace Quor {
namespace Bpf {

int64_t SubAbs(int64_t a, int64_t b) {
    const int64_t diff = static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
    if (diff < 0) return static_cast<int64_t>(static_cast<uint64_t>(b) - static_cast<uint64_t>(a));
    return diff;
}

std::string ReadSymlink(const char* path) {
    constexpr size_t kBufferSize = 4096;
    std::unique_ptr<char[]> buffer(new char[kBufferSize]);
    const ssize_t len = readlink(path, buffer.get(), kBufferSize - 1);
    if (len == -1) return std::string();
    buffer[len] = '\0';
    return std::string(buffer.get());
}

bool IsDigits(const std::string& s) {
    if (s.empty()) return false;
    for (const char c : s) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

std::string ConvertToHexString(const char* data, int32_t len) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    if (len <= 0 || data == nullptr) return out;
    out.resize(static_cast<size_t>(len) * 3);
    for (int32_t i = 0; i < len; ++i) {
        const unsigned char byte = static_cast<unsigned char>(data[i]);
        out[i * 3] = kDigits[byte >> 4];
        out[i * 3 + 1] = kDigits[byte & 0x0f];
        out[i * 3 + 2] = ' ';
    }
    return out;
}

std::string StringPrintf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list measure;
    va_copy(measure, args);
    const int n = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    std::string out;
    if (n > 0) {
        out.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&out[0], static_cast<size_t>(n) + 1, fmt, args);
        out.resize(static_cast<size_t>(n));
    }
    va_end(args);
    return out;
}

std::vector<std::string> Split(const std::string& s, const std::string& delim) {
    std::vector<std::string> tokens;
    if (delim.empty()) {
        if (!s.empty()) tokens.push_back(s);
        return tokens;
    }
    size_t start = 0;
    while (true) {
        const size_t pos = s.find(delim, start);
        if (pos == std::string::npos) {
            if (start < s.size()) tokens.emplace_back(s, start, std::string::npos);
            return tokens;
        }
        if (pos > start) tokens.emplace_back(s, start, pos - start);
        start = pos + delim.size();
    }
}

}  // namespace Bpf
}  // namespace Quor
