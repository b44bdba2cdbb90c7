// JsonLine: builds one JSON object on one line, for `watch --json`.
//
// Keys are written as given (callers pass plain ASCII identifiers); string
// values are escaped so that any byte sequence yields valid JSON: quote,
// backslash and control characters are escaped, valid UTF-8 passes through,
// and every byte that is not part of a valid UTF-8 sequence is written as
// \u00XX (the byte read as Latin-1), so a process name of arbitrary bytes
// still parses and keeps its information.
//
//   JsonLine line;
//   line.Add("pid", 42).Add("comm", comm);
//   puts(line.Text().c_str());   // {"pid":42,"comm":"..."}
//
// A plain value; not shared between threads.
#pragma once

#include <cstdint>
#include <string>

namespace Quor {
namespace Bpf {
namespace Ctl {

class JsonLine {
public:
    JsonLine& Add(const char* key, int64_t value);
    JsonLine& Add(const char* key, uint64_t value);
    JsonLine& Add(const char* key, int32_t value) { return Add(key, static_cast<int64_t>(value)); }
    JsonLine& Add(const char* key, uint32_t value) {
        return Add(key, static_cast<uint64_t>(value));
    }
    JsonLine& Add(const char* key, const std::string& value);
    JsonLine& Add(const char* key, const char* value) { return Add(key, std::string(value)); }

    // The object, without a trailing newline.
    std::string Text() const { return "{" + body_ + "}"; }

private:
    void Key(const char* key);
    std::string body_;
};

// `text` as a JSON string literal, quotes included.
std::string JsonQuote(const std::string& text);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
