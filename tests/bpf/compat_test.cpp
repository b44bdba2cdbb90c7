// The kernel compatibility rule: its four forms, the version arithmetic, and
// malformed strings, which never match.
#include <gtest/gtest.h>

#include "bpf/quor_bpf_compat.h"

using Quor::Bpf::convertVersionToInt;
using Quor::Bpf::MatchesKernelVersion;

namespace {

TEST(CompatTest, VersionNumbers) {
    const std::pair<const char*, int32_t> cases[] = {
        {"5.0", 5000},          {"5.10", 5010},
        {"6.1", 6001},          {"4.19.157", 4019},  // the third piece is ignored
        {"5..10", 5010},                             // empty pieces dropped
        {"5.10-android", 5010},                      // parsing stops at a non-digit
        {" 6.18", 6018},
    };
    for (const auto& [text, value] : cases) EXPECT_EQ(convertVersionToInt(text), value) << text;
    for (const char* bad :
         {"", "5", ".", "a.b", "5.x", "x5.1", "5.-1", "5.1000", "99999999999.1", "+.1"}) {
        EXPECT_EQ(convertVersionToInt(bad), -1) << bad;
    }
}

TEST(CompatTest, FormsAgainstARunningVersion) {
    const struct {
        const char* compat;
        std::vector<const char*> match, miss;
    } cases[] = {
        {"5.0+", {"5.10"}, {"4.19"}},
        {"6.1+", {"6.1"}, {"5.15"}},
        {"5.4-5.15", {"5.10", "5.15", "5.4"}, {"6.1", "4.19"}},
        {"5.10-", {"5.10"}, {"5.15"}},
        {"5.10", {"5.10"}, {"5.15"}},
        // A string ending in "+" or "-" is a one-sided bound even with another "-".
        {"5.4-5.15-", {}, {"5.10"}},
    };
    for (const auto& c : cases) {
        for (const char* running : c.match)
            EXPECT_TRUE(MatchesKernelVersion(c.compat, convertVersionToInt(running)))
                << c.compat << " on " << running;
        for (const char* running : c.miss)
            EXPECT_FALSE(MatchesKernelVersion(c.compat, convertVersionToInt(running)))
                << c.compat << " on " << running;
    }
    // Malformed rules never match; the last three would match 5.10 if read leniently.
    for (const char* bad : {"", "+", "-", "5+", "x.y+", "5.4-5.15-6.1", "-5.10", "5.4-x", "junk",
                            "0+", "x-9.0", "9-"}) {
        EXPECT_FALSE(MatchesKernelVersion(bad, convertVersionToInt("5.10"))) << bad;
    }
}

}  // namespace
