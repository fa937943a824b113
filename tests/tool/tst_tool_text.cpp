// The pure helpers of pxtool where the end-to-end tests cannot reach every edge: number and
// byte parsing, the progress line's limits. Argument splitting, hex dumps and sizes are
// checked through the tool in tst_tool.

#include "PXToolText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

using namespace pxtool;

namespace {

TEST(PXToolText, ParseUnsignedHexBytesAndTheProgressLine)
{
    // A failed parse leaves the value as it was: `bad`. Decimal "0100" is never octal.
    constexpr std::uint64_t u32 = 0xFFFFFFFF, u64 = ~0ull, bad = 12345;
    const std::tuple<const char*, std::uint64_t, std::uint64_t> cases[] = {
        // clang-format off
        {"0", u32, 0}, {"0x1000", u32, 0x1000}, {"0XfFfF", u32, 0xFFFF}, {"4294967295", u32, u32},
        {"0100", u32, 100}, {"255", 0xFF, 255}, {"0x100", 0xFF, bad}, {"0x100000000", u32, bad},
        {"4294967296", u32, bad}, {"18446744073709551615", u64, u64},
        {"18446744073709551616", u64, bad}, {"0xFFFFFFFFFFFFFFFFF", u64, bad}, {"", u32, bad},
        {"0x", u32, bad}, {"-1", u32, bad}, {" 1", u32, bad}, {"1 ", u32, bad}, {"12ab", u32, bad},
        {"0x12g", u32, bad},
        // clang-format on
    };
    for (const auto& [text, max, expected] : cases) {
        std::uint64_t value = bad;
        EXPECT_EQ(parseUnsigned(text, max, &value), expected != bad) << text;
        EXPECT_EQ(value, expected) << text;
    }

    // A failed parse leaves the bytes as they were: {0x55}.
    const std::tuple<const char*, bool, std::vector<std::uint8_t>> byteCases[] = {
        // clang-format off
        {"", true, {}}, {"0102FF", true, {1, 2, 0xFF}}, {"0x01,0x02", true, {1, 2}},
        {"  ab\tcd  ", true, {0xAB, 0xCD}}, {"012", false, {0x55}}, {"0x", false, {0x55}},
        {"01 0g", false, {0x55}},
        // clang-format on
    };
    for (const auto& [text, ok, expected] : byteCases) {
        std::vector<std::uint8_t> bytes{0x55};
        EXPECT_EQ(parseHexBytes(text, &bytes), ok) << text;
        EXPECT_EQ(bytes, expected) << text;
    }

    // The progress line: more done than the total (a callback overshooting) is drawn as complete.
    EXPECT_EQ(progressLine("x", 9, 4, 0.0, 2), "x [==] 100%  4 B / 4 B  -");
    EXPECT_EQ(progressLine("x", 0, 0, 0.0, 2), "x [==] 100%  0 B / 0 B  -");
    EXPECT_EQ(progressLine("load", 512, 1024, 1.0, 10),
              "load [=====>    ]  50%  512 B / 1.00 KiB  0.50 KiB/s");
}

} // namespace
