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
    bool operator==(const Outcome& o) const
    {
        return packets == o.packets && lastResult == o.lastResult && positions == o.positions;
    }
};

void PrintTo(const Packet& p, std::ostream* os)
{
    *os << "@" << std::hex << p.address << " {";
    for (uint32_t w : p.words)
        *os << " " << w;
    *os << " }" << std::dec;
}

std::string crlf(const std::string& text)
{
    std::string out;
    for (char c : text) {
        if (c == '\n')
            out += '\r';
        out += c;
    }
    return out;
}

uint32_t strtoul32(const char* text)
{
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 16));
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

    std::string contents(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
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
            Packet p;
            p.address = packet->address;
            p.words.assign(packet->words, packet->words + packet->wordCount);
            out.packets.push_back(p);
            LOD_FreeLodPacket(packet);
        }
        LOD_Close(file);
        return out;
    }

    // The reading rules done the plain way: every line through fgetl(), each packet counted
    // with countPacketWords() and then read a second time, numbers through strtoul().
    static Outcome readWithReference(const std::string& path)
    {
        Outcome out;
        FILE* file = std::fopen(path.c_str(), "rb");
        char line[1027];
        for (;;) {
            bool gotPacket = false;
            Packet p;
            while (fgetl(line, sizeof line, file)) {
                if (line[0] == '\0' || line[0] == '#')
                    continue;
                if (line[0] != '@') {
                    out.lastResult = 1;
                    break;
                }
                p.address = strtoul32(line + 1);
                const int count = countPacketWords(file);
                while (int(p.words.size()) < count && fgetl(line, sizeof line, file)) {
                    if (line[0] != '#')
                        p.words.push_back(strtoul32(line));
                }
                gotPacket = true;
                break;
            }
            out.positions.push_back(std::ftell(file));
            if (!gotPacket)
                break;
            out.packets.push_back(p);
        }
        std::fclose(file);
        return out;
    }

    QTemporaryDir m_dir;
    int m_files = 0;
};

struct FileCase
{
    const char* name;
    std::string text;
    std::vector<Packet> packets;
    int lastResult;
};

TEST_F(LodFileTest, ReadsFilesWithLfAndCrLf)
{
    const FileCase cases[] = {
        {"two words", "@00001000\n12345678\n9ABCDEF0\n", {{0x1000, {0x12345678, 0x9ABCDEF0}}}, 0},
        {"packet without words", "@100\n@200\n1\n", {{0x100, {}}, {0x200, {1}}}, 0},
        {"blank line ends packet, then stray data", "@100\n1\n\n2\n", {{0x100, {1}}}, 1},
        {"comments take no word", "# head\n\n@0x20\n# inside\nAB\n", {{0x20, {0xAB}}}, 0},
        {"data before first address", "12\n@0\n1\n", {}, 1},
        {"blank lines and comments only", "\n# a\n\n#\n", {}, 0},
        {"empty file", "", {}, 0},
        {"last line without end", "@10\n5", {{0x10, {5}}}, 0},
        {"comment and blank between packets",
         "@1\n1\n\n# x\n\n@2\n2\n# tail\n",
         {{1, {1}}, {2, {2}}},
         0},
        {"number quirks",
         "@0\n123456789\nxyz\n  1F\n0x10\n-1\n+2\n0x\n10000000000000000\n\t\v\f1\n",
         {{0, {0x23456789, 0, 0x1F, 0x10, 0xFFFFFFFF, 2, 0, 0xFFFFFFFF, 1}}},
         0},
        {"address quirks", "@ 0x7g\n@\n@-0x10\n", {{7, {}}, {0, {}}, {0xFFFFFFF0, {}}}, 0},
        // The first 1026 characters of a line count; the rest of it is skipped, not read as a
        // line of its own.
        {"over-long comment", "@0\n#" + std::string(2000, 'x') + "@9\n7\n", {{0, {7}}}, 0},
        {"over-long data line", "@0\n" + std::string(1026, ' ') + "5\n6\n", {{0, {0, 6}}}, 0},
        {"line of exactly 1026 characters",
         "@0\n" + std::string(1025, ' ') + "5\n6\n",
         {{0, {5, 6}}},
         0},
    };
    for (const FileCase& c : cases) {
        for (bool useCrLf : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (useCrLf ? " (CR LF)" : " (LF)"));
            const Outcome got = readAll(write(useCrLf ? crlf(c.text) : c.text));
            EXPECT_EQ(got.packets, c.packets);
            EXPECT_EQ(got.lastResult, c.lastResult);
        }
    }
}

TEST_F(LodFileTest, StreamStandsAfterLastWordBetweenCalls)
{
    const std::string path = write("@1\n1\n#c\n\n@2\n# x\n@3\n");
    LodFile* file = LOD_Open(path.c_str());
    ASSERT_NE(file, nullptr);
    const long expected[] = {5, 12, 19, 19};
    for (long position : expected) {
        LodPacket* packet = nullptr;
        EXPECT_EQ(LOD_NextLodPacket(file, &packet), 0);
        EXPECT_EQ(std::ftell(file->file), position);
        if (packet)
            LOD_FreeLodPacket(packet);
    }
    LOD_Close(file);
}

TEST_F(LodFileTest, NumbersReadLikeStrtoul)
{
    std::vector<std::string> lines = {
        "0",
        "ffffffff",
        "FFFFFFFF0",
        "123456789",
        "ffffffffffffffff",
        "10000000000000000",
        "-10000000000000000",
        "00000000000000000000000000000001",
        "fffffffffffffffffffff",
        "xyz",
        "  1F",
        "\t\v\f\r 7",
        "0x1A",
        "0X1a",
        "0xg",
        "0x",
        "0x0x5",
        " 0x 5",
        "-1",
        "-0x10",
        "+0x10",
        "--1",
        "+-1",
        "1 2",
        "1x2",
        "\x80"
        "1",
        "\xA0"
        "1",
        "a\rb",
    };
    std::mt19937 random(7);
    const char alphabet[] = "0123456789abcdefABCDEFxX+- \t\v\fg";
    for (int i = 0; i < 2000; ++i) {
        std::string s(1 + random() % 24, ' ');
        for (char& ch : s)
            ch = alphabet[random() % (sizeof alphabet - 1)];
        lines.push_back(s);
    }

    std::string text = "@0\n";
    Packet expected;
    for (const std::string& line : lines) {
        text += line + "\n";
        expected.words.push_back(strtoul32(line.c_str()));
    }
    const Outcome got = readAll(write(text));
    ASSERT_EQ(got.packets.size(), 1u);
    ASSERT_EQ(got.packets[0].words.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(got.packets[0].words[i], expected.words[i]) << "line \"" << lines[i] << "\"";
}

// Random files of LOD-like lines, odd line ends, zero bytes, lines around the length limit and
// binary garbage: the reader must give what the plain two-pass reading gives, and leave the
// stream at the same place after every call.
TEST_F(LodFileTest, MatchesPlainReadingOnRandomFiles)
{
    std::mt19937 random(20240611);
    const std::vector<std::string> fragments = {"@",
                                                "@1000",
                                                "@0x20",
                                                "@ 7",
                                                "#",
                                                "# comment",
                                                "",
                                                "12345678",
                                                "  1F",
                                                "xyz",
                                                "0x",
                                                "-1",
                                                "\r",
                                                "\t",
                                                std::string(1, '\0'),
                                                "@5\0x",
                                                "9\0",
                                                "ab\r",
                                                "fffffffff0000000001"};
    const std::vector<std::string> ends = {"\n", "\n", "\n", "\r\n", "\r\n", "\r", "\r\r\n", ""};
    const size_t longLengths[] = {1024, 1025, 1026, 1027, 1028, 2000};
    const char longFill[] = "1 #@\r";

    for (int round = 0; round < 1500; ++round) {
        std::string text;
        if (round % 10 == 9) {
            text.resize(random() % 4096);
            for (char& ch : text)
                ch = static_cast<char>(random() % 4 == 0 ? '\n' : random());
        } else {
            const int lines = random() % 40;
            for (int i = 0; i < lines; ++i) {
                if (random() % 12 == 0) {
                    text += std::string(longLengths[random() % 6] - random() % 2,
                                        longFill[random() % 5]);
                } else {
                    text += fragments[random() % fragments.size()];
                }
                text += ends[random() % ends.size()];
            }
        }
        const std::string path = write(text);
        const Outcome got = readAll(path);
        const Outcome want = readWithReference(path);
        ASSERT_EQ(got.packets, want.packets) << "round " << round;
        ASSERT_EQ(got.lastResult, want.lastResult) << "round " << round;
        ASSERT_EQ(got.positions, want.positions) << "round " << round;
    }
}

// Comments after a packet's last word longer than the stream's buffer: giving them back
// must cross a buffer refill and still leave the stream right after the last word.
TEST_F(LodFileTest, GivesBackLookAheadLongerThanTheStreamBuffer)
{
    std::string text = "@10\n1\n2\n";
    while (text.size() < 300 * 1024)
        text += "# " + std::string(1000, 'c') + "\n";
    text += "\n@20\n3\n";
    const std::string path = write(text);
    const Outcome got = readAll(path);
    EXPECT_EQ(got.packets, (std::vector<Packet>{{0x10, {1, 2}}, {0x20, {3}}}));
    EXPECT_EQ(got.lastResult, 0);
    EXPECT_EQ(got.positions, readWithReference(path).positions);
    ASSERT_FALSE(got.positions.empty());
    EXPECT_EQ(got.positions[0], 8);
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
    const struct
    {
        std::string text;
        long start;
        int count;
    } cases[] = {
        {"@0\n1\n#c\n2\n\n3\n", 3, 2},
        {"@0\n1\r\n2\r\n@5\n", 3, 2},
        {"@0\n# only comments\n", 3, 0},
        {"@0\n", 3, 0},
        {"1\n2\n3", 0, 3},
    };
    for (const auto& c : cases) {
        FILE* file = std::fopen(write(c.text).c_str(), "rb");
        ASSERT_NE(file, nullptr);
        std::fseek(file, c.start, SEEK_SET);
        EXPECT_EQ(countPacketWords(file), c.count) << c.text;
        EXPECT_EQ(std::ftell(file), c.start) << c.text;
        std::fclose(file);
    }
}

TEST_F(LodFileTest, DumpFormatsAreByteExact)
{
    uint32_t words[] = {1, 0xABCDEF};
    LodPacket packet = {0x1000, 2, words};
    LodPacket noWords = {0xAB, 0, nullptr};
    LodPacket negative = {0xFFFFFFFF, -3, nullptr};

    const std::string path = m_dir.filePath("dump").toStdString();
    const auto dump = [&](void (*dumper)(FILE*, LodPacket*), LodPacket* p) {
        FILE* file = std::fopen(path.c_str(), "wb");
        dumper(file, p);
        std::fclose(file);
        return contents(path);
    };
    EXPECT_EQ(dump(LOD_DumpPacketLodFormat, &packet), "@00001000\n00000001\n00ABCDEF\n");
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat, &packet),
              std::string("\x01\x00\x00\x00\xEF\xCD\xAB\x00", 8));
    EXPECT_EQ(dump(LOD_DumpPacketLodFormat, &noWords), "@000000AB\n");
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat, &noWords), "");
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
}

TEST_F(LodFileTest, DumpedPacketsReadBack)
{
    std::mt19937 random(11);
    const unsigned sizes[] = {0, 1, 511, 512, 513, 5000, 0, 2};
    const std::string path = m_dir.filePath("round").toStdString();
    FILE* file = std::fopen(path.c_str(), "wb");
    std::vector<Packet> written;
    for (unsigned size : sizes) {
        LodPacket* packet = LOD_AllocateLodPacket(static_cast<uint32_t>(random()), size);
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->wordCount, int(size));
        EXPECT_EQ(size == 0, packet->words == nullptr);
        Packet p{packet->address, {}};
        for (unsigned i = 0; i < size; ++i) {
            packet->words[i] = static_cast<uint32_t>(random());
            p.words.push_back(packet->words[i]);
        }
        LOD_DumpPacketLodFormat(file, packet);
        LOD_FreeLodPacket(packet);
        written.push_back(p);
    }
    std::fclose(file);
    const Outcome got = readAll(path);
    EXPECT_EQ(got.packets, written);
    EXPECT_EQ(got.lastResult, 0);
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
