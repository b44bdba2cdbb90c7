// The kernel compatibility rule of the programme tables.
//
// Each table row carries a string saying on which kernels its programme may
// be attached, compared with the property "ro.kernel.version" (major.minor;
// "0.0" when unset). Versions compare as major * 1000 + minor; a patch level
// is ignored. Forms, recognised in this order:
//   "5.0+"      running >= 5.0          "5.10-"     running <= 5.10
//   "5.4-5.15"  5.4 <= running <= 5.15  "5.10"      running == 5.10
// A malformed string (fewer than two numeric fields, a field that does not
// start with a number, a negative field, a minor of 1000 or more) never
// matches: CheckBpfCompatibility returns false and the row is skipped.
// Stateless; safe from any thread; never throws.
#pragma once

#include <cstdint>
#include <string>

namespace Quor {
namespace Bpf {

// The running kernel's "major.minor", set by the platform.
constexpr const char* QUOR_KERNEL_VERSION_PROPERTY = "ro.kernel.version";

// The version number of "major.minor[.more]" (5.10 -> 5010), or -1 when the
// string is malformed.
int32_t convertVersionToInt(const std::string& version);

// Whether the running kernel matches `compat`.
bool CheckBpfCompatibility(const std::string& compat);

// The rule itself, against a given running version number.
bool MatchesKernelVersion(const std::string& compat, int32_t running);

}  // namespace Bpf
}  // namespace Quor
