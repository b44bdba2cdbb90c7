#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "diag/quor_bpf_strings.h"

using namespace Quor::Bpf;
using Tokens = std::vector<std::string>;

TEST(SplitTest, DropsEmptyTokensAndMatchesWholeDelimiter) {
    EXPECT_EQ(Split("a,,b,", ","), (Tokens{"a", "b"}));
    EXPECT_EQ(Split(",,", ","), Tokens{});
    EXPECT_EQ(Split("abc", ","), Tokens{"abc"});
    EXPECT_EQ(Split("", ","), Tokens{});
    // A multi-character delimiter is matched as a whole, never by its parts.
    EXPECT_EQ(Split("a::b:c::::d", "::"), (Tokens{"a", "b:c", "d"}));
    EXPECT_EQ(Split("7fff-8000", "-"), (Tokens{"7fff", "8000"}));
}

TEST(SplitTest, EmptyDelimiterTerminates) {
    EXPECT_EQ(Split("abc", ""), Tokens{"abc"});
    EXPECT_EQ(Split("", ""), Tokens{});
}

TEST(StringPrintfTest, FormatsOutputOfAnyLength) {
    EXPECT_EQ(StringPrintf("%d-%s", 42, "x"), "42-x");
    EXPECT_EQ(StringPrintf("%s", ""), "");
    const std::string big(100000, 'q');
    const std::string out = StringPrintf("<%s>%d", big.c_str(), 7);
    ASSERT_EQ(out.size(), big.size() + 3);
    EXPECT_EQ(out.front(), '<');
    EXPECT_EQ(out.substr(out.size() - 2), ">7");
}

TEST(ConvertToHexStringTest, TwoLowerCaseDigitsAndBlankPerByte) {
    const char bytes[] = {0x0a, static_cast<char>(0xff), 0x00, static_cast<char>(0x80)};
    EXPECT_EQ(ConvertToHexString(bytes, 3), "0a ff 00 ");
    EXPECT_EQ(ConvertToHexString(bytes + 3, 1), "80 ");
    EXPECT_EQ(ConvertToHexString(bytes, 0), "");
    EXPECT_EQ(ConvertToHexString(bytes, -5), "");
}

TEST(IsDigitsTest, OnlyNonEmptyDecimalText) {
    EXPECT_TRUE(IsDigits("0012"));
    EXPECT_FALSE(IsDigits(""));
    EXPECT_FALSE(IsDigits("-1"));
    EXPECT_FALSE(IsDigits("self"));
    EXPECT_FALSE(IsDigits("12a"));
}

TEST(SubAbsTest, AbsoluteDifferenceWithoutOverflowTrap) {
    EXPECT_EQ(SubAbs(3, 10), 7);
    EXPECT_EQ(SubAbs(10, 3), 7);
    EXPECT_EQ(SubAbs(-5, 5), 10);
    // Wraps instead of trapping; the value is what 64-bit arithmetic gives.
    EXPECT_EQ(SubAbs(LLONG_MIN, 0), LLONG_MIN);
}

TEST(ReadSymlinkTest, TargetOrEmpty) {
    char dir[] = "/tmp/quor_symlinkXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string link = std::string(dir) + "/l";
    ASSERT_EQ(symlink("/dmabuf:target", link.c_str()), 0);
    EXPECT_EQ(ReadSymlink(link.c_str()), "/dmabuf:target");
    EXPECT_EQ(ReadSymlink(dir), "");  // a directory is not a link
    EXPECT_EQ(ReadSymlink("/nonexistent/quor"), "");
    unlink(link.c_str());
    rmdir(dir);
}
