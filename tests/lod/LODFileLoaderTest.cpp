#include "pellix/lod/LODFileLoader.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <vector>

extern "C" int lodReadFromC(const char* path, uint32_t* wordSum);

namespace {

struct Packet
{
    uint32_t address = 0;
    std::vector<uint32_t> words;
    bool operator==(const Packet& o) const { return address == o.address && words == o.words; }
};

// Everything a reader observes of one file: the packets, the result of the last call and the
// stream position after every call.
struct Outcome
{
    std::vector<Packet> packets;
    int lastResult = 0;
    std::vector<long> positions;
};

std::string crlf(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return out;
}

class LodFileTest : public ::testing::Test
{
protected:
    std::string write(const std::string& bytes)
    {
        const std::string path = m_dir.filePath(QString::number(m_files++)).toStdString();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    // Reads the whole file with the library's reader.
    static Outcome readAll(const std::string& path)
    {
        Outcome out;
        LodFile* file = LOD_Open(path.c_str());
        if (!file) {
            ADD_FAILURE() << "cannot open " << path;
            return out;
        }
        for (;;) {
            LodPacket* packet = reinterpret_cast<LodPacket*>(1);
            out.lastResult = LOD_NextLodPacket(file, &packet);
            out.positions.push_back(std::ftell(file->file));
            if (!packet)
                break;
            EXPECT_EQ(out.lastResult, 0);
            EXPECT_GE(packet->wordCount, 0);
            EXPECT_EQ(packet->wordCount == 0, packet->words == nullptr);
            out.packets.push_back(
                {packet->address, {packet->words, packet->words + packet->wordCount}});
            LOD_FreeLodPacket(packet);
        }
        LOD_Close(file);
        return out;
    }

    QTemporaryDir m_dir;
    int m_files = 0;
};

TEST_F(LodFileTest, ReadsFilesWithLfAndCrLf)
{
    const std::string n1025(1025, ' ');
    const struct
    {
        const char* name;
        std::string text;
        std::vector<Packet> packets;
        int lastResult;
    } cases[] = {
        {"two words", "@00001000\n12345678\n9ABCDEF0\n", {{0x1000, {0x12345678, 0x9ABCDEF0}}}, 0},
        {"packet without words", "@100\n@200\n1\n", {{0x100, {}}, {0x200, {1}}}, 0},
        {"blank line ends packet, stray data", "@100\n1\n\n2\n", {{0x100, {1}}}, 1},
        {"comments take no word", "# head\n\n@0x20\n# inside\nAB\n", {{0x20, {0xAB}}}, 0},
        {"data before first address", "12\n@0\n1\n", {}, 1},
        {"blank lines and comments only", "\n# a\n\n#\n", {}, 0},
        {"empty file", "", {}, 0},
        {"last line without end", "@10\n5", {{0x10, {5}}}, 0},
        {"between packets", "@1\n1\n\n# x\n\n@2\n2\n# tail\n", {{1, {1}}, {2, {2}}}, 0},
        {"number quirks",
         "@0\nxyz\n  1F\n-1\n+2\n0x\n\t\v\f1\n",
         {{0, {0, 0x1F, ~0u, 2, 0, 1}}},
         0},
        {"address quirks", "@ 0x7g\n@\n@-0x10\n", {{7, {}}, {0, {}}, {0xFFFFFFF0, {}}}, 0},
        // The first 1026 characters of a line count; the rest of it is skipped, not read as a
        // line of its own.
        {"over-long comment", "@0\n#" + std::string(2000, 'x') + "@9\n7\n", {{0, {7}}}, 0},
        {"over-long data line", "@0\n " + n1025 + "5\n6\n", {{0, {0, 6}}}, 0},
        {"line of exactly 1026 characters", "@0\n" + n1025 + "5\n6\n", {{0, {5, 6}}}, 0},
    };
    for (const auto& c : cases) {
        for (bool useCrLf : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (useCrLf ? " (CR LF)" : " (LF)"));
            const Outcome got = readAll(write(useCrLf ? crlf(c.text) : c.text));
            EXPECT_EQ(got.packets, c.packets);
            EXPECT_EQ(got.lastResult, c.lastResult);
        }
    }
}

TEST_F(LodFileTest, NumbersReadLikeStrtoul)
{
    // One quirk a line (line ends are LF only).
    const std::string quirks =
        "0\nffffffff\nFFFFFFFF0\n123456789\nffffffffffffffff\n10000000000000000\n"
        "-10000000000000000\n00000000000000000000000000000001\nfffffffffffffffffffff\nxyz\n"
        "  1F\n\t\v\f\r 7\n0x1A\n0X1a\n0xg\n0x\n0x0x5\n 0x 5\n-1\n-0x10\n+0x10\n--1\n+-1\n1 2\n"
        "1x2\n\x80\x31\n\xA0\x31\na\rb";
    std::string text = "@0\n" + quirks + "\n";
    std::mt19937 random(7);
    const char alphabet[] = "0123456789abcdefABCDEFxX+- \t\v\fg";
    for (int i = 0; i < 2000; ++i) {
        for (int n = 1 + int(random() % 24); n > 0; --n)
            text += alphabet[random() % (sizeof alphabet - 1)];
        text += '\n';
    }
    const Outcome got = readAll(write(text));
    ASSERT_EQ(got.packets.size(), 1u);
    const std::vector<uint32_t>& words = got.packets[0].words;
    size_t n = 0;
    for (size_t at = 3, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = text.substr(at, end - at);
        ASSERT_LT(n, words.size());
        EXPECT_EQ(words[n++], uint32_t(std::strtoul(line.c_str(), nullptr, 16))) << line;
    }
    EXPECT_EQ(n, words.size());
}

// Between calls the stream stands at the start of the line after the last word read, also
// when the comments looked at after it are longer than the stream's buffer (giving them back
// crosses a buffer refill).
TEST_F(LodFileTest, StreamStandsAfterTheLastWordBetweenCalls)
{
    EXPECT_EQ(readAll(write("@1\n1\n#c\n\n@2\n# x\n@3\n")).positions,
              (std::vector<long>{5, 12, 19, 19}));
    std::string text = "@10\n1\n2\n";
    while (text.size() < 300 * 1024)
        text += "# " + std::string(1000, 'c') + "\n";
    text += "\n@20\n3\n";
    const std::string path = write(text);
    const Outcome got = readAll(path);
    EXPECT_EQ(got.packets, (std::vector<Packet>{{0x10, {1, 2}}, {0x20, {3}}}));
    EXPECT_EQ(got.lastResult, 0);
    const long end = long(text.size());
    EXPECT_EQ(got.positions, (std::vector<long>{8, end, end}));
}

struct LineCase
{
    const char* name;
    std::string text;
    int bufferSize;
    std::vector<std::string> lines;
};

TEST_F(LodFileTest, FgetlCutsLinesAtTheBuffer)
{
    const std::string a1026(1026, 'a');
    const LineCase cases[] = {
        {"LF and CR LF", "abc\nde\r\nf\n", 8, {"abc", "de", "f"}},
        {"end of file without line end", "abc\nde", 8, {"abc", "de"}},
        {"line fills the buffer exactly", "abcdefg\nx\n", 8, {"abcdefg", "x"}},
        {"end of file right at the buffer end", "abcdefg", 8, {"abcdefg"}},
        {"CR as last character kept", "abcdef\r\nx\n", 8, {"abcdef", "x"}},
        {"CR just past the buffer", "abcdefg\r\nx\n", 8, {"abcdefg", "x"}},
        {"over-long line", "abcdefghij\nx\n", 8, {"abcdefg", "x"}},
        {"over-long last line", "abcdefghij", 8, {"abcdefg"}},
        {"CR before end of file kept", "abc\r", 8, {"abc\r"}},
        {"blank lines", "\n\r\n\n", 8, {"", "", ""}},
        {"empty file", "", 8, {}},
        // A zero byte ends the string early; the line then looks cut, so the next line is
        // skipped as its rest.
        {"zero byte inside a line", std::string("ab\0cd\nxy\nz\n", 11), 8, {"ab", "z"}},
        {"1026 characters", a1026 + "\nb\n", 1027, {a1026, "b"}},
        {"2000 characters", std::string(2000, 'a') + "\nb\n", 1027, {a1026, "b"}},
    };
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.name);
        FILE* file = std::fopen(write(c.text).c_str(), "rb");
        ASSERT_NE(file, nullptr);
        std::vector<std::string> lines;
        std::vector<char> buffer(c.bufferSize + 1, 'Z');
        while (fgetl(buffer.data(), c.bufferSize, file))
            lines.emplace_back(buffer.data());
        EXPECT_EQ(buffer[c.bufferSize], 'Z') << "wrote past the buffer";
        EXPECT_EQ(lines, c.lines);
        std::fclose(file);
    }
}

TEST_F(LodFileTest, CountPacketWordsRestoresPosition)
{
    const std::tuple<std::string, long, int> cases[] = {{"@0\n1\n#c\n2\n\n3\n", 3, 2},
                                                        {"@0\n1\r\n2\r\n@5\n", 3, 2},
                                                        {"@0\n# only comments\n", 3, 0},
                                                        {"@0\n", 3, 0},
                                                        {"1\n2\n3", 0, 3}};
    for (const auto& [text, start, count] : cases) {
        FILE* file = std::fopen(write(text).c_str(), "rb");
        ASSERT_NE(file, nullptr);
        std::fseek(file, start, SEEK_SET);
        EXPECT_EQ(countPacketWords(file), count) << text;
        EXPECT_EQ(std::ftell(file), start) << text;
        std::fclose(file);
    }
}

TEST_F(LodFileTest, DumpFormatsAreByteExact)
{
    uint32_t words[] = {1, 0xABCDEF};
    LodPacket packet = {0x1000, 2, words};
    LodPacket* noWords = LOD_AllocateLodPacket(0xAB, 0); // no words: no array either
    ASSERT_TRUE(noWords && noWords->wordCount == 0 && noWords->words == nullptr);
    LodPacket negative = {0xFFFFFFFF, -3, nullptr};

    const std::string path = m_dir.filePath("dump").toStdString();
    const auto dump = [&](void (*dumper)(FILE*, LodPacket*), LodPacket* p) {
        FILE* file = std::fopen(path.c_str(), "wb");
        dumper(file, p);
        std::fclose(file);
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    EXPECT_EQ(dump(LOD_DumpPacketLodFormat, &packet), "@00001000\n00000001\n00ABCDEF\n");
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat, &packet),
              std::string("\x01\x00\x00\x00\xEF\xCD\xAB\x00", 8));
    EXPECT_EQ(dump(LOD_DumpPacketLodFormat, noWords), "@000000AB\n");
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat, noWords), "");
    EXPECT_EQ(dump(LOD_DumpPacketLodFormat, &negative), "@FFFFFFFF\n");
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat, &negative), "");

    // Longer than the writer's internal chunk: still the same text as printf per word.
    std::mt19937 random(3);
    LodPacket* big = LOD_AllocateLodPacket(0x20000000, 1300);
    ASSERT_NE(big, nullptr);
    std::string expected = "@20000000\n";
    char line[16];
    for (int i = 0; i < big->wordCount; ++i) {
        big->words[i] = static_cast<uint32_t>(random());
        std::snprintf(line, sizeof line, "%08X\n", big->words[i]);
        expected += line;
    }
    EXPECT_EQ(dump(LOD_DumpPacketLodFormat, big), expected);
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat, big),
              std::string(reinterpret_cast<const char*>(big->words), 1300 * 4));
    LOD_FreeLodPacket(big);
    LOD_FreeLodPacket(noWords);
}

TEST_F(LodFileTest, OpenAndCloseFromCAndCpp)
{
    EXPECT_EQ(LOD_Open(m_dir.filePath("missing").toUtf8().constData()), nullptr);
    LOD_Close(nullptr);

    uint32_t sum = 0;
    EXPECT_EQ(lodReadFromC(write("@0\n1\n2\n@8\n\n@9\n4\n").c_str(), &sum), 3);
    EXPECT_EQ(sum, 7u);
    EXPECT_EQ(lodReadFromC(write("@0\n1\n\n2\n").c_str(), &sum), -2);
    EXPECT_EQ(lodReadFromC(m_dir.filePath("missing").toUtf8().constData(), &sum), -1);
}

} // namespace
