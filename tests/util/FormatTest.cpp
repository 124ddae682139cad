#include <gtest/gtest.h>

#include "support/Seed.h"
#include "util/Format.h"

namespace tarnwell {
namespace {

enum class Color : std::int32_t { kRed = 7 };

TEST(FormatTest, fillsAsPrintfWould) {
    EXPECT_EQ(format("File %@ (share %@) %d of %d", "a.txt", SharedString("s1"), 1, 2U),
              "File a.txt (share s1) 1 of 2");
    EXPECT_EQ(format("[%5d|%-5d|%+d|%6.3d]", 42, 42, 42, 7), "[   42|42   |+42|   007]");
    EXPECT_EQ(format("%x %X %#x %o %u %llx", 255, 255, 255, 8, -1, std::int64_t{-1}),
              "ff FF 0xff 10 4294967295 ffffffffffffffff");
    EXPECT_EQ(format("%.2f %g %08.3f%%", 1.005, 0.0001, -3.14159), "1.00 0.0001 -003.142%");
    EXPECT_EQ(format("%s|%10s|%-4s|%.2s|%c", "x", "right", "l", "cut", 'A'), "x|     right|l   |cu|A");
    EXPECT_EQ(format("%*d %-*d|%.*f", 5, 1, 3, 2, 1, 0.55), "    1 2  |0.6");
    EXPECT_EQ(format("%@ %@ %@ %@", true, Color::kRed, 1.5, std::nullopt == std::optional<int>()),
              "1 7 1.5 1");
}

TEST(FormatTest, aWrongLetterOrCountIsNeverMoreThanAnOddText) {
    EXPECT_EQ(format("%d %s %f", "text", 5, 7), "text 5 7.000000");
    EXPECT_EQ(format("%d %@"), "(missing) (missing)");
    EXPECT_EQ(format("%@ %@", SharedString(), static_cast<const char*>(nullptr)), "(null) (null)");
    EXPECT_EQ(format("%y %-", 1), "%y %-");
    EXPECT_LE(format("%999999999999999999999d", 1).size(), 5000U);
    EXPECT_LE(format("%.999999999f %*d", 1e308, INT64_MIN, 1).size(), 10000U);
    EXPECT_EQ(format("%d", 1e300), "1e+300");
}

TEST(FormatTest, anyFormatIsSafe) {
    const unsigned seed = testing::seed();
    SCOPED_TRACE(testing::replayWith(seed));
    std::mt19937 random(seed);
    constexpr std::string_view kLetters = "%%%%@dsxufgeacpi0123456789.*-+# lhqzy\n";
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (unsigned k = random() % 24; k > 0; --k)
            text += kLetters[random() % kLetters.size()];
        ASSERT_LT(format(text, 1, "two", 3.5, SharedString(), INT64_MIN).size(), 40000U) << text;
    }
}

TEST(FormatTest, logArgumentsCannotForgeALine) {
    EXPECT_EQ(formatLogText("a\n%@ %d", {FormatArgument("x\n[1] \x1b[2J\x7f\t\u00e9"), FormatArgument(1)}),
              "a\nx\\n[1] \\x1b[2J\\x7f\\x09\u00e9 1");
}

}  // namespace
}  // namespace tarnwell
