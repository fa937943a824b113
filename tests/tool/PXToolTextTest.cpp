// The pure helpers of pxtool where the end-to-end tests cannot reach every edge: number and
// byte parsing, the progress line's limits. Argument splitting, hex dumps, sizes and the
// common parse failures are checked through the tool in PXToolEndToEndTest.

#include "PXToolText.h"

#include <gtest/gtest.h>

#include <cstdint>

using namespace pxtool;

namespace {

TEST(PXToolText, ParseUnsigned)
{
    constexpr std::uint64_t u32 = 0xFFFFFFFF, u64 = ~0ull;
    const struct
    {
        const char* text;
        std::uint64_t max;
        bool ok;
        std::uint64_t value;
    } cases[] = {
        // clang-format off
        {"0", u32, true, 0}, {"0x1000", u32, true, 0x1000}, {"0XfFfF", u32, true, 0xFFFF},
        {"4294967295", u32, true, u32}, {"0xFFFFFFFF", u32, true, u32}, {"0x100", 0xFF, false, 0},
        {"0100", u32, true, 100}, /* decimal, never octal */ {"255", 0xFF, true, 255},
        {"0x100000000", u32, false, 0}, {"4294967296", u32, false, 0},
        {"18446744073709551615", u64, true, u64}, {"18446744073709551616", u64, false, 0},
        {"0xFFFFFFFFFFFFFFFFF", u64, false, 0}, {"", u32, false, 0}, {"0x", u32, false, 0},
        {"-1", u32, false, 0}, {"+1", u32, false, 0}, {" 1", u32, false, 0},
        {"1 ", u32, false, 0}, {"12ab", u32, false, 0}, {"0x12g", u32, false, 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        std::uint64_t value = 12345;
        EXPECT_EQ(parseUnsigned(c.text, c.max, &value), c.ok) << c.text;
        EXPECT_EQ(value, c.ok ? c.value : 12345u) << c.text;
    }
}

TEST(PXToolText, ParseHexBytes)
{
    const struct
    {
        const char* text;
        bool ok;
        std::vector<std::uint8_t> bytes;
    } cases[] = {
        // clang-format off
        {"", true, {}}, {"0102FF", true, {1, 2, 0xFF}}, {"0x01,0x02", true, {1, 2}},
        {"de:ad", true, {0xDE, 0xAD}}, {"  ab\tcd  ", true, {0xAB, 0xCD}}, {"012", false, {0x55}},
        {"0x", false, {0x55}}, {"01 0g", false, {0x55}}, {"zz", false, {0x55}},
        // clang-format on
    };
    for (const auto& c : cases) {
        std::vector<std::uint8_t> bytes{0x55};
        EXPECT_EQ(parseHexBytes(c.text, &bytes), c.ok) << c.text;
        EXPECT_EQ(bytes, c.bytes) << c.text; // {0x55}: untouched on failure
    }
}

TEST(PXToolText, ProgressLine)
{
    // More done than the total (a callback overshooting) is drawn as complete.
    EXPECT_EQ(progressLine("x", 9, 4, 0.0, 2), "x [==] 100%  4 B / 4 B  -");
    EXPECT_EQ(progressLine("x", 0, 0, 0.0, 2), "x [==] 100%  0 B / 0 B  -");
    EXPECT_EQ(progressLine("load", 512, 1024, 1.0, 10),
              "load [=====>    ]  50%  512 B / 1.00 KiB  0.50 KiB/s");
}

} // namespace
