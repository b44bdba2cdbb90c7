#include "bpf/quor_bpf_compat.h"

#include <android-base/properties.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include "diag/quor_bpf_strings.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr int32_t kMinorLimit = 1000;

// One field as strtol reads it (leading blanks and a sign accepted, stops at
// the first non-digit: "10-android" is 10); false when no digit starts it or
// it is negative or too large to scale.
bool ParseField(const std::string& piece, long* out) {
    const char* begin = piece.c_str();
    char* end = nullptr;
    errno = 0;
    const long value = strtol(begin, &end, 10);
    if (end == begin || errno == ERANGE || value < 0) return false;
    // strtol accepts a sign without digits after blanks only if digits follow;
    // make sure at least one digit was consumed.
    bool sawDigit = false;
    for (const char* p = begin; p != end; ++p) sawDigit = sawDigit || isdigit(*p);
    if (!sawDigit) return false;
    *out = value;
    return true;
}

}  // namespace

int32_t convertVersionToInt(const std::string& version) {
    const std::vector<std::string> pieces = Split(version, ".");
    if (pieces.size() < 2) return -1;
    long major = 0;
    long minor = 0;
    if (!ParseField(pieces[0], &major) || !ParseField(pieces[1], &minor)) return -1;
    if (minor >= kMinorLimit || major > (INT32_MAX - minor) / kMinorLimit) return -1;
    return static_cast<int32_t>(major * kMinorLimit + minor);
}

bool MatchesKernelVersion(const std::string& compat, int32_t running) {
    if (compat.empty() || running < 0) return false;
    const char last = compat.back();
    if (last == '-' || last == '+') {
        const int32_t bound = convertVersionToInt(compat.substr(0, compat.size() - 1));
        if (bound < 0) return false;
        return last == '-' ? running <= bound : running >= bound;
    }
    if (compat.find('-') != std::string::npos) {
        const std::vector<std::string> ends = Split(compat, "-");
        if (ends.size() != 2) return false;
        const int32_t low = convertVersionToInt(ends[0]);
        const int32_t high = convertVersionToInt(ends[1]);
        if (low < 0 || high < 0) return false;
        return running >= low && running <= high;
    }
    const int32_t exact = convertVersionToInt(compat);
    return exact >= 0 && running == exact;
}

bool CheckBpfCompatibility(const std::string& compat) {
    const int32_t running =
        convertVersionToInt(android::base::GetProperty(QUOR_KERNEL_VERSION_PROPERTY, "0.0"));
    return MatchesKernelVersion(compat, running);
}

}  // namespace Bpf
}  // namespace Quor
