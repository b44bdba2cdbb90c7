#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "diag/quor_bpf_strings.h"

using namespace Quor::Bpf;
using Tokens = std::vector<std::string>;

TEST(SplitTest, DropsEmptyTokensMatchesWholeDelimiterAndTerminates) {
    EXPECT_EQ(Split("a,,b,", ","), (Tokens{"a", "b"}));
    EXPECT_EQ(Split(",,", ","), Tokens{});
    // A multi-character delimiter is matched as a whole, never by its parts.
    EXPECT_EQ(Split("a::b:c::::d", "::"), (Tokens{"a", "b:c", "d"}));
    EXPECT_EQ(Split("abc", ""), Tokens{"abc"});
    EXPECT_EQ(Split("", ""), Tokens{});
}

TEST(StringsTest, FormattingAndParsingAtTheirBounds) {
    const std::string big(100000, 'q');  // beyond any fixed first buffer
    EXPECT_EQ(StringPrintf("<%s>%d", big.c_str(), 7), "<" + big + ">7");
    const char bytes[] = {0x0a, static_cast<char>(0xff), 0x00};
    EXPECT_EQ(ConvertToHexString(bytes, 3), "0a ff 00 ");
    EXPECT_EQ(ConvertToHexString(bytes, -5), "");
    EXPECT_FALSE(IsDigits(""));
    EXPECT_FALSE(IsDigits("-1"));
    EXPECT_FALSE(IsDigits("12a"));
    EXPECT_TRUE(IsDigits("0012"));
    EXPECT_EQ(SubAbs(3, 10), 7);
    EXPECT_EQ(SubAbs(LLONG_MIN, 0), LLONG_MIN);  // wraps instead of trapping
}
