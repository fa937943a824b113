// The pure helpers of pxtool: number and byte parsing, the argument splitter, hex dumps and
// the progress line.

#include "PXToolText.h"
#include "PXToolArgs.h"

#include <gtest/gtest.h>

#include <cstdint>

using namespace pxtool;

namespace {

struct NumberCase
{
    const char* text;
    std::uint64_t max;
    bool ok;
    std::uint64_t value;
};

TEST(PXToolText, ParseUnsigned)
{
    const NumberCase cases[] = {
        {"0", 0xFFFFFFFF, true, 0},
        {"4096", 0xFFFFFFFF, true, 4096},
        {"0x1000", 0xFFFFFFFF, true, 0x1000},
        {"0XfFfF", 0xFFFFFFFF, true, 0xFFFF},
        {"0xFFFFFFFF", 0xFFFFFFFF, true, 0xFFFFFFFF},
        {"4294967295", 0xFFFFFFFF, true, 0xFFFFFFFF},
        {"0100", 0xFFFFFFFF, true, 100}, // decimal, never octal
        {"0x100000000", 0xFFFFFFFF, false, 0},
        {"4294967296", 0xFFFFFFFF, false, 0},
        {"0x100", 0xFF, false, 0},
        {"255", 0xFF, true, 255},
        {"18446744073709551615", ~0ull, true, ~0ull},
        {"18446744073709551616", ~0ull, false, 0}, // 64-bit overflow
        {"0xFFFFFFFFFFFFFFFFF", ~0ull, false, 0},
        {"", 0xFFFFFFFF, false, 0},
        {"0x", 0xFFFFFFFF, false, 0},
        {"-1", 0xFFFFFFFF, false, 0},
        {"+1", 0xFFFFFFFF, false, 0},
        {" 1", 0xFFFFFFFF, false, 0},
        {"1 ", 0xFFFFFFFF, false, 0},
        {"12ab", 0xFFFFFFFF, false, 0},
        {"0x12g", 0xFFFFFFFF, false, 0},
        {"xyz", 0xFFFFFFFF, false, 0},
    };
    for (const NumberCase& c : cases) {
        std::uint64_t value = 12345;
        EXPECT_EQ(parseUnsigned(c.text, c.max, &value), c.ok) << c.text;
        EXPECT_EQ(value, c.ok ? c.value : 12345u) << c.text;
    }
}

struct BytesCase
{
    const char* text;
    bool ok;
    std::vector<std::uint8_t> bytes;
};

TEST(PXToolText, ParseHexBytes)
{
    const BytesCase cases[] = {
        {"", true, {}},
        {"01 02 ff", true, {0x01, 0x02, 0xFF}},
        {"0102FF", true, {0x01, 0x02, 0xFF}},
        {"0x01,0x02", true, {0x01, 0x02}},
        {"de:ad:be:ef", true, {0xDE, 0xAD, 0xBE, 0xEF}},
        {"  ab\tcd  ", true, {0xAB, 0xCD}},
        {"0xdeadbeef", true, {0xDE, 0xAD, 0xBE, 0xEF}},
        {"1", false, {}},
        {"012", false, {}},
        {"0x", false, {}},
        {"zz", false, {}},
        {"01 0g", false, {}},
    };
    for (const BytesCase& c : cases) {
        std::vector<std::uint8_t> bytes{0x55};
        EXPECT_EQ(parseHexBytes(c.text, &bytes), c.ok) << c.text;
        if (c.ok)
            EXPECT_EQ(bytes, c.bytes) << c.text;
        else
            EXPECT_EQ(bytes, std::vector<std::uint8_t>{0x55}) << c.text; // untouched
    }
}

TEST(PXToolText, ParseFlowMode)
{
    EXPECT_EQ(parseFlowMode("none"), 0);
    EXPECT_EQ(parseFlowMode("hardware"), 1);
    EXPECT_EQ(parseFlowMode("xonxoff"), 2);
    EXPECT_EQ(parseFlowMode("2"), 2);
    EXPECT_EQ(parseFlowMode("3"), -1);
    EXPECT_EQ(parseFlowMode("Hardware"), -1);
}

TEST(PXToolText, HexDumpLinesAndPartialLastLine)
{
    std::vector<std::uint8_t> data;
    for (int i = 0; i < 20; ++i)
        data.push_back(std::uint8_t(0x3C + i));
    EXPECT_EQ(hexDump(0x1000, data.data(), data.size()),
              "00001000  3c 3d 3e 3f 40 41 42 43  44 45 46 47 48 49 4a 4b  |<=>?@ABCDEFGHIJK|\n"
              "00001010  4c 4d 4e 4f                                       |LMNO|\n");
    EXPECT_EQ(hexDump(0, data.data(), 0), "");
}

TEST(PXToolText, HexDumpHidesUnselectedBytesAndNonPrintables)
{
    const std::uint8_t data[] = {0x41, 0x00, 0x7F, 0x42};
    const std::uint8_t mask[] = {0xFF, 0x00, 0xFF, 0x0F};
    EXPECT_EQ(hexDump(0xFFFFFFFC, data, 4, mask),
              "FFFFFFFC  41 -- 7f --" + std::string(12 * 3 + 1, ' ') + "  |A...|\n");
}

TEST(PXToolText, SizesRatesAndTimes)
{
    EXPECT_EQ(formatSize(512), "512 B");
    EXPECT_EQ(formatSize(1536), "1.50 KiB");
    EXPECT_EQ(formatSize(1048576), "1.00 MiB");
    EXPECT_EQ(formatRate(2 * 1048576, 0.5), "4.00 MiB/s");
    EXPECT_EQ(formatRate(512, 1.0), "0.50 KiB/s");
    EXPECT_EQ(formatRate(100, 0.0), "-");
    EXPECT_EQ(isoTime(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(isoTime(1700000000123), "2023-11-14T22:13:20.123Z");
}

TEST(PXToolText, ProgressLine)
{
    EXPECT_EQ(progressLine("load", 512, 1024, 1.0, 10),
              "load [=====>    ]  50%  512 B / 1.00 KiB  0.50 KiB/s");
    EXPECT_EQ(progressLine("load", 1024, 1024, 1.0, 4),
              "load [====] 100%  1.00 KiB / 1.00 KiB  1.00 KiB/s");
    // More done than the total (a callback overshooting) is drawn as complete.
    EXPECT_EQ(progressLine("x", 9, 4, 0.0, 2), "x [==] 100%  4 B / 4 B  -");
    EXPECT_EQ(progressLine("x", 0, 0, 0.0, 2), "x [==] 100%  0 B / 0 B  -");
}

// ---- argument splitting ------------------------------------------------------------------

const std::vector<OptionDef> kGlobals = {
    {"port", "N", ""}, {"quiet", nullptr, ""}, {"help", nullptr, ""}};
const std::vector<OptionDef> kReadOptions = {{"out", "FILE", ""}, {"binary", nullptr, ""}};

const std::vector<OptionDef>* lookup(const std::string& name)
{
    return name == "read" ? &kReadOptions : nullptr;
}

struct ArgsCase
{
    std::vector<std::string> argv;
    bool ok;
    std::string command;
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    std::string error; // part of the message
};

TEST(PXToolArgs, Parse)
{
    const ArgsCase cases[] = {
        {{"--port", "3", "read", "0x10", "4"}, true, "read", {"0x10", "4"}, {{"port", "3"}}, ""},
        {{"read", "0x10", "--port=3", "--out", "f", "4"},
         true,
         "read",
         {"0x10", "4"},
         {{"port", "3"}, {"out", "f"}},
         ""},
        {{"-q", "read", "-h"}, true, "read", {}, {{"quiet", ""}, {"help", ""}}, ""},
        {{"read", "--", "--out"}, true, "read", {"--out"}, {}, ""},
        {{"read", "-"}, true, "read", {"-"}, {}, ""},
        {{}, true, "", {}, {}, ""},
        {{"--out", "f", "read"}, false, "", {}, {}, "command options go after the command"},
        {{"read", "--bogus"}, false, "", {}, {}, "unknown option '--bogus'"},
        {{"read", "-x"}, false, "", {}, {}, "unknown option '-x'"},
        {{"read", "--out"}, false, "", {}, {}, "needs a value"},
        {{"read", "--binary=1"}, false, "", {}, {}, "takes no value"},
        {{"--port", "1", "read", "--port", "2"}, false, "", {}, {}, "given twice"},
        {{"ping", "--out", "f"}, false, "", {}, {}, "unknown option '--out'"},
    };
    for (const ArgsCase& c : cases) {
        Arguments args;
        std::string error;
        const bool ok = parseArguments(c.argv, kGlobals, lookup, &args, &error);
        std::string joined;
        for (const std::string& a : c.argv)
            joined += a + " ";
        ASSERT_EQ(ok, c.ok) << joined << error;
        if (ok) {
            EXPECT_EQ(args.command, c.command) << joined;
            EXPECT_EQ(args.positional, c.positional) << joined;
            EXPECT_EQ(args.values, c.values) << joined;
        } else {
            EXPECT_NE(error.find(c.error), std::string::npos) << joined << " -> " << error;
        }
    }
}

} // namespace
