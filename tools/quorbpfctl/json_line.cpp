#include "tools/quorbpfctl/json_line.h"

#include <cinttypes>
#include <cstdio>

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0.
size_t Utf8SequenceLength(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    size_t length = 0;
    uint32_t min = 0;
    uint32_t codepoint = 0;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
        min = 0x80;
        codepoint = lead & 0x1f;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        min = 0x800;
        codepoint = lead & 0x0f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        min = 0x10000;
        codepoint = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xc0) != 0x80) return 0;
        codepoint = (codepoint << 6) | (byte(i + k) & 0x3f);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    if (codepoint < min || codepoint > 0x10ffff) return 0;
    if (codepoint >= 0xd800 && codepoint <= 0xdfff) return 0;
    return length;
}

}  // namespace

std::string JsonQuote(const std::string& text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c == '\n') {
            out += "\\n";
            ++i;
        } else if (c == '\t') {
            out += "\\t";
            ++i;
        } else if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
            ++i;
        } else if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
        } else if (const size_t length = Utf8SequenceLength(text, i)) {
            out.append(text, i, length);
            i += length;
        } else {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
            ++i;
        }
    }
    out += '"';
    return out;
}

void JsonLine::Key(const char* key) {
    if (!body_.empty()) body_ += ',';
    body_ += '"';
    body_ += key;
    body_ += "\":";
}

JsonLine& JsonLine::Add(const char* key, int64_t value) {
    Key(key);
    char text[32];
    snprintf(text, sizeof(text), "%" PRId64, value);
    body_ += text;
    return *this;
}

JsonLine& JsonLine::Add(const char* key, uint64_t value) {
    Key(key);
    char text[32];
    snprintf(text, sizeof(text), "%" PRIu64, value);
    body_ += text;
    return *this;
}

JsonLine& JsonLine::Add(const char* key, const std::string& value) {
    Key(key);
    body_ += JsonQuote(value);
    return *this;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
