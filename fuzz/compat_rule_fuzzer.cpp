// The kernel compatibility rule and version conversion on arbitrary strings.
// Input: a length-prefixed "ro.kernel.version" value, 4 bytes of a running
// version, then the compatibility string (FuzzedDataProvider's layout).
#include <android-base/properties.h>
#include <android/log.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "bpf/quor_bpf_compat.h"
#include "fuzz/fuzz_support.h"

using namespace Quor::Bpf;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string property = input.ConsumeRandomLengthString(64);
    const int32_t running = input.ConsumeIntegral<int32_t>();
    const std::string compat = input.ConsumeRemainingBytesAsString();

    const int32_t version = convertVersionToInt(compat);
    Require(version == -1 || version >= 0);
    if (version >= 0) {
        const std::string printed =
            std::to_string(version / 1000) + "." + std::to_string(version % 1000);
        Require(convertVersionToInt(printed) == version);
    }

    const bool matches = MatchesKernelVersion(compat, running);
    if (running < 0) Require(!matches);
    if (!compat.empty() && matches) {
        if (compat.back() == '+' && running < INT32_MAX) {
            Require(MatchesKernelVersion(compat, running + 1));
        }
        if (compat.back() == '-' && running > 0) Require(MatchesKernelVersion(compat, running - 1));
    }
    if (version >= 0 && compat.find('-') == std::string::npos && compat.back() != '+') {
        Require(MatchesKernelVersion(compat, version));
    }

    // Whatever the property holds, the rule sees its conversion.
    android::base::SetProperty("ro.kernel.version", property);
    const std::string stored = android::base::GetProperty("ro.kernel.version", "0.0");
    Require(CheckBpfCompatibility(compat) ==
            MatchesKernelVersion(compat, convertVersionToInt(stored)));
    return 0;
}
