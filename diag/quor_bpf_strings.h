// String helpers shared by every subsystem. None of them logs or throws
// (beyond allocation failure).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {

// |a - b| in 64-bit wrap-around arithmetic.
int64_t SubAbs(int64_t a, int64_t b);

// Target of the symbolic link at `path`, or "" when it is not a readable link.
std::string ReadSymlink(const char* path);

// True iff `s` is non-empty and every byte is '0'..'9'.
bool IsDigits(const std::string& s);

// Each of the first `len` bytes as two lower-case hex digits and a blank.
std::string ConvertToHexString(const char* data, int32_t len);

// printf into a string; "" on empty output or a formatting error.
std::string StringPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Tokens of `s` between occurrences of `delim`, empty tokens dropped. An empty
// delimiter yields the whole string as its one token (none if `s` is empty).
std::vector<std::string> Split(const std::string& s, const std::string& delim);

}  // namespace Bpf
}  // namespace Quor
