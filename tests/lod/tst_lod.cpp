// The LOD reader and writer: packets of LF and CR LF files, numbers read like strtoul, the
// stream position between calls, fgetl's cutting, and dumps that read back. (The header
// compiled and linked as C99: tests/api/c_header_check.c.)

#include "pellix/lod/LODFileLoader.h"
#include "pellix/lod/LODLines_p.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// A packet's address and words.
using Packet = std::pair<uint32_t, std::vector<uint32_t>>;

const auto repeat = [](const std::string& text, int times) {
    return QByteArray::fromStdString(text).repeated(times).toStdString();
};

std::vector<uint32_t> operator+(std::vector<uint32_t> words, uint32_t last)
{
    words.push_back(last);
    return words;
}

// Everything a reader observes of one file: the packets, the result of the last call and the
// stream position after every call.
struct Outcome
{
    std::vector<Packet> packets;
    int lastResult = 0;
    std::vector<long> positions;
};

class LodFileTest : public ::testing::Test
{
protected:
    std::string newPath() { return m_dir.filePath(QString::number(m_files++)).toStdString(); }

    std::string write(const std::string& bytes)
    {
        const std::string path = newPath();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    // Reads `text` whole with the library's reader, from a file or through a pipe (a stream
    // that cannot seek).
    Outcome read(const std::string& text, bool pipe = false)
    {
        Outcome out;
        const std::string path = pipe ? newPath() : write(text);
        std::thread writer;
        if (pipe) {
            EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
            writer = std::thread([&] { std::ofstream(path, std::ios::binary) << text; });
        }
        LodFile* file = LOD_Open(path.c_str());
        EXPECT_NE(file, nullptr) << "cannot open " << path;
        while (file) {
            LodPacket* packet = reinterpret_cast<LodPacket*>(1);
            out.lastResult = LOD_NextLodPacket(file, &packet);
            out.positions.push_back(std::ftell(file->file));
            if (!packet)
                break;
            out.packets.push_back(
                {packet->address, {packet->words, packet->words + packet->wordCount}});
            LOD_FreeLodPacket(packet);
        }
        LOD_Close(file);
        if (writer.joinable())
            writer.join();
        return out;
    }

    QTemporaryDir m_dir;
    int m_files = 0;
};

// Each file with LF, with CR LF, and with LF through a pipe: a stream that cannot seek is read a
// character at a time, long packets too, so that nothing read ahead is lost. Between calls the
// stream stands at the start of the line after the last word read, also when the comments
// looked at after it are longer than the stream's buffer (giving them back crosses a buffer
// refill).
TEST_F(LodFileTest, ReadsFilesWithLfAndCrLfAndFromPipes)
{
    const std::string comments = repeat("# " + std::string(1000, 'c') + "\n", 307); // > 300 KiB
    const long after = long(comments.size()) + 15;
    // The name, the text, the packets, the result of the last call and, where given, the stream
    // position after each call (with LF).
    // clang-format off
    const std::tuple<const char*, std::string, std::vector<Packet>, int, std::vector<long>> cases[] = {
        {"positions", "@1\n1\n#c\n\n@2\n# x\n@3\n", {{1, {1}}, {2, {}}, {3, {}}}, 0, {5, 12, 19, 19}},
        {"positions after long comments", "@10\n1\n2\n" + comments + "\n@20\n3\n",
         {{0x10, {1, 2}}, {0x20, {3}}}, 0, {8, after, after}},
        {"positions after a long packet", "@10\n" + repeat("2\n", 1000) + "#c\n\n@20\n",
         {{0x10, std::vector<uint32_t>(1000, 2)}, {0x20, {}}}, 0, {2004, 2012, 2012}},
        // A data line outside a packet ends the file; the packets before it are kept.
        {"blank line ends packet, stray data", "@100\n1\n\n2\n", {{0x100, {1}}}, 1, {}},
        {"data before first address", "12\n@0\n1\n", {}, 1, {}},
        {"comments take no word", "# head\n\n@0x20\n# inside\nAB\n", {{0x20, {0xAB}}}, 0, {}},
        {"empty file", "", {}, 0, {}},
        {"last line without end", "@10\n5", {{0x10, {5}}}, 0, {}},
        {"address quirks", "@ 0x7g\n@\n@-0x10\n", {{7, {}}, {0, {}}, {0xFFFFFFF0, {}}}, 0, {}},
        // The first 1026 characters of a line count; the rest of it is skipped, not read as a
        // line of its own.
        {"over-long comment", "@0\n#" + std::string(2000, 'x') + "@9\n7\n", {{0, {7}}}, 0, {}},
        {"over-long data line", "@0\n " + std::string(1025, ' ') + "5\n6\n", {{0, {0, 6}}}, 0, {}},
        {"line of exactly 1026 characters", "@0\n" + std::string(1025, ' ') + "5\n6\n", {{0, {5, 6}}}, 0, {}},
        // Long packets are read in blocks after their first lines.
        {"long packet, last line without end", "@10\n" + repeat("1\n", 300) + "5", {{0x10, std::vector<uint32_t>(300, 1) + 5}}, 0, {}},
        {"long packet, stray data", "@0\n" + repeat("7\n", 300) + "\n7\n", {{0, std::vector<uint32_t>(300, 7)}}, 1, {}},
        {"long packet of eight-digit lines", "@10\n" + repeat("0123cdEF\n", 3000) + "\n@20\n7\n",
         {{0x10, std::vector<uint32_t>(3000, 0x0123CDEF)}, {0x20, {7}}}, 0, {}},
    };
    // clang-format on
    for (const auto& [name, text, packets, lastResult, positions] : cases) {
        for (const std::string form : {"LF", "CR LF", "pipe"}) {
            SCOPED_TRACE(name + (" (" + form + ")"));
            const Outcome got = read(QByteArray::fromStdString(text)
                                         .replace("\n", form == "CR LF" ? "\r\n" : "\n")
                                         .toStdString(),
                                     form == "pipe");
            EXPECT_EQ(got.packets, packets);
            EXPECT_EQ(got.lastResult, lastResult);
            if (form == "LF" && !positions.empty()) {
                EXPECT_EQ(got.positions, positions);
            }
        }
    }
    EXPECT_EQ(LOD_Open(m_dir.filePath("missing").toUtf8().constData()), nullptr);
    LOD_Close(nullptr);
}

TEST_F(LodFileTest, NumbersReadLikeStrtoul)
{
    // One quirk a line (line ends are LF only), then random lines; the quirks also where a long
    // packet is read in blocks, and there eight-character lines with each byte next to the
    // digits' and letters' ranges in each place, after enough plain lines each to be read in
    // blocks again.
    const std::string quirks =
        "0\nffffffff\nFFFFFFFF0\n123456789\nffffffffffffffff\n10000000000000000\n"
        "-10000000000000000\n00000000000000000000000000000001\nfffffffffffffffffffff\nxyz\n"
        "  1F\n\t\v\f\r 7\n0x1A\n0X1a\n0xg\n0x\n0x0x5\n 0x 5\n-1\n-0x10\n+0x10\n--1\n+-1\n1 2\n"
        "1x2\n\x80\x31\n\xA0\x31\na\rb";
    std::string text = "@0\n" + quirks + "\n" + repeat("1\n", 300) + quirks + "\n";
    std::mt19937 random(7);
    const char alphabet[] = "0123456789abcdefABCDEFxX+- \t\v\fg";
    for (int i = 0; i < 2000; ++i) {
        for (int n = 1 + int(random() % 24); n > 0; --n)
            text += alphabet[random() % (sizeof alphabet - 1)];
        text += '\n';
    }
    for (const char edge : std::string("/09:@AFG`afg\x01\x06\x10\x19\xB0\xC1\xE6")) {
        for (int place = edge == '@' ? 1 : 0; place < 8; ++place) {
            std::string line = "8BADF00D";
            line[size_t(place)] = edge;
            text += repeat("0123cdEF\n", 300) + line + '\n';
        }
    }
    const Outcome got = read(text);
    std::istringstream lines(text.substr(3));
    std::vector<uint32_t> expected;
    for (std::string line; std::getline(lines, line);)
        expected.push_back(uint32_t(std::strtoul(line.c_str(), nullptr, 16)));
    EXPECT_EQ(got.packets, (std::vector<Packet>{{0, expected}}));
}

// fgetl with a small buffer, and countPacketWords (its full-size buffer) after the first line.
TEST_F(LodFileTest, FgetlCutsLinesAndCountPacketWordsRestoresThePosition)
{
    const std::tuple<const char*, std::string, std::vector<std::string>, int> cases[] = {
        // clang-format off
        {"LF, CR LF, blank lines", "abc\nde\r\nf\n\n\r\n", {"abc", "de", "f", "", ""}, 2},
        {"end of file without line end", "abc\nde", {"abc", "de"}, 1},
        {"line fills the buffer exactly", "abcdefg\nx\n", {"abcdefg", "x"}, 1},
        {"CR just past the buffer", "abcdefg\r\nx\n", {"abcdefg", "x"}, 1},
        {"over-long line", "abcdefghij\nx\n", {"abcdefg", "x"}, 1},
        {"CR before end of file kept", "abc\r", {"abc\r"}, 0},
        {"comments are no words, an address line ends", "1\n#c\n2\n@5\n6", {"1", "#c", "2", "@5", "6"}, 1},
        // A zero byte ends the string early; the line then looks cut, so the next line is
        // skipped as its rest.
        {"zero byte inside a line", std::string("ab\0cd\nxy\nz\n", 11), {"ab", "z"}, 1},
        // clang-format on
    };
    for (const auto& [name, text, expected, words] : cases) {
        SCOPED_TRACE(name);
        FILE* file = std::fopen(write(text).c_str(), "rb");
        ASSERT_NE(file, nullptr);
        std::vector<char> buffer(9, 'Z');
        ASSERT_NE(fgetl(buffer.data(), 8, file), nullptr);
        const long at = std::ftell(file);
        EXPECT_EQ(countPacketWords(file), words) << "after the first line";
        EXPECT_EQ(std::ftell(file), at);
        std::vector<std::string> lines{buffer.data()};
        while (fgetl(buffer.data(), 8, file))
            lines.emplace_back(buffer.data());
        EXPECT_EQ(buffer[8], 'Z') << "wrote past the buffer";
        EXPECT_EQ(lines, expected);
        std::fclose(file);
    }
}

// Both formats for a packet longer than the text writer's chunk of 512 words, one without
// words and one with a negative count. (Every packet the reader finds, a word array exactly
// when it has words, and its dumps read back to it: lod_fuzz, whose seeds hold packets of more
// than 512 words.)
TEST_F(LodFileTest, DumpsAreByteExactAndReadBack)
{
    LodPacket* big = LOD_AllocateLodPacket(0x20000000, 1300);
    LodPacket* noWords = LOD_AllocateLodPacket(0xAB, 0);
    ASSERT_TRUE(big && noWords && noWords->wordCount == 0 && noWords->words == nullptr);
    LodPacket negative = {0xFFFFFFFF, -3, nullptr};
    for (int i = 0; i < big->wordCount; ++i)
        big->words[i] = uint32_t(i) * 2654435761u + 1;
    const auto dump = [&](void (*dumper)(FILE*, LodPacket*)) {
        char* data = nullptr;
        size_t size = 0;
        FILE* file = open_memstream(&data, &size);
        for (LodPacket* packet : {big, noWords, &negative})
            dumper(file, packet);
        std::fclose(file);
        const std::string out(data, size);
        std::free(data);
        return out;
    };
    const std::string text = dump(LOD_DumpPacketLodFormat);
    EXPECT_EQ(text.substr(0, 28), "@20000000\n00000001\n9E3779B2\n");
    EXPECT_EQ(text.substr(text.size() - 21), "\n@000000AB\n@FFFFFFFF\n");
    EXPECT_EQ(dump(LOD_DumpPacketBinaryFormat),
              std::string(reinterpret_cast<const char*>(big->words), 1300 * 4));
    LOD_FreeLodPacket(big);
    LOD_FreeLodPacket(noWords);
}

} // namespace

// Eight-digit lines converted a group at a time: every byte value in every place of the first
// of two groups, against each line read on its own, by the path this processor takes and by
// the portable one.
TEST(LodLines, GroupsConvertExactlyThePlainEightDigitLines)
{
    std::string text;
    for (uint32_t i = 0; i < 2 * pxlod::LineGroup; ++i) {
        char line[16];
        std::snprintf(line, sizeof line, i % 2 ? "%08x\n" : "%08X\n", (i + 1) * 0x9E3779B1u);
        text += line;
    }
    for (const auto convert : {pxlod::convertLines, pxlod::convertLinesPortable}) {
        for (size_t place = 0; place < pxlod::LineGroupBytes; ++place) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string changed = text;
                changed[place] = char(byte);
                bool plain = true;
                std::vector<uint32_t> expected;
                for (size_t at = 0; at < changed.size(); at += pxlod::LineSize) {
                    plain = plain &&
                            changed.find_first_not_of("0123456789abcdefABCDEF", at) == at + 8 &&
                            changed[at + 8] == '\n';
                    expected.push_back(
                        uint32_t(std::strtoul(changed.substr(at, 8).c_str(), nullptr, 16)));
                }
                uint32_t words[pxlod::LineBatch] = {};
                const size_t lines = convert(reinterpret_cast<const unsigned char*>(changed.data()),
                                             changed.size(), words, pxlod::LineBatch);
                ASSERT_EQ(std::vector<uint32_t>(words, words + lines),
                          plain ? expected : std::vector<uint32_t>())
                    << place << ' ' << byte;
            }
        }
        // Whole groups only: within the room given and the bytes there.
        uint32_t words[pxlod::LineBatch];
        const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
        EXPECT_EQ(convert(bytes, text.size(), words, 15), 8u);
        EXPECT_EQ(convert(bytes, text.size() - 1, words, 64), 8u);
        EXPECT_EQ(convert(bytes, pxlod::LineGroupBytes - 1, words, 64), 0u);
    }
}
