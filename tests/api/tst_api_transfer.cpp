// Masked reads and LOD transfers against the fake memory server, which records every
// access, so the access widths and block calls can be checked exactly.

#include "ApiTestSupport.h"

#include "pellix/api/PXLLibraryApi.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace apitest;

namespace {

class ApiTransfer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        ASSERT_EQ(PXST_OpenSocket("127.0.0.1", server.port(), &handle), PXST_RESULT_OK);
    }
    void TearDown() override { PXST_Close(handle); }

    QByteArray lodFile(const QStringList& lines)
    {
        return writeLines(dir.filePath(QStringLiteral("f%1.lod").arg(files++)), lines)
            .toLocal8Bit();
    }
    QByteArray path(const char* name) const { return dir.filePath(name).toLocal8Bit(); }

    QTemporaryDir dir;
    MemoryServer server;
    int handle = 0;
    int files = 0;
};

QString hex8(quint32 value)
{
    return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0')).toUpper();
}

quint32 patternWord(quint32 address)
{
    return quint32(patternByte(address)) | quint32(patternByte(address + 1)) << 8 |
           quint32(patternByte(address + 2)) << 16 | quint32(patternByte(address + 3)) << 24;
}

struct MaskedCase
{
    const char* name;
    quint32 address;
    std::vector<unsigned char> mask;
    QList<Access> expected;
};

std::vector<unsigned char> selectAll(size_t size)
{
    return std::vector<unsigned char>(size, 0xFF);
}

} // namespace

TEST_F(ApiTransfer, MaskedReadUsesTheWidestAccessEachRunAllowsAndSkipsUnselectedBytes)
{
    std::vector<unsigned char> gapped = selectAll(12);
    gapped[5] = 0x00;
    const std::vector<MaskedCase> cases = {
        {"aligned 8", 0x1000, selectAll(8), {read(0x1000, 8)}},
        {"run of 6 rounds down", 0x1000, selectAll(6), {read(0x1000, 4), read(0x1004, 2)}},
        {"odd start", 0x1001, selectAll(4), {read(0x1001, 1), read(0x1002, 2), read(0x1004, 1)}},
        {"start 2 mod 4", 0x1002, selectAll(4), {read(0x1002, 2), read(0x1004, 2)}},
        {"gap", 0x1000, {0xFF, 0x00, 0xFF, 0xFF}, {read(0x1000, 1), read(0x1002, 2)}},
        {"partial mask selects nothing",
         0x1000,
         {0xFF, 0x0F, 0xFF, 0xFF},
         {read(0x1000, 1), read(0x1002, 2)}},
        {"13 bytes", 0x1000, selectAll(13), {read(0x1000, 12), read(0x100C, 1)}},
        {"15 bytes", 0x1000, selectAll(15), {read(0x1000, 12), read(0x100C, 2), read(0x100E, 1)}},
        {"exactly 4", 0x2000, selectAll(4), {read(0x2000, 4)}},
        {"run of 5 then a gap",
         0x1000,
         gapped,
         {read(0x1000, 4), read(0x1004, 1), read(0x1006, 2), read(0x1008, 4)}},
        {"third byte unselected",
         0x1000,
         {0xFF, 0xFF, 0x00, 0xFF, 0xFF},
         {read(0x1000, 2), read(0x1003, 1), read(0x1004, 1)}},
        {"one block beyond the block read limit", 0x4000, selectAll(40000), {read(0x4000, 40000)}},
        {"nothing selected", 0x1000, std::vector<unsigned char>(8, 0x00), {}},
        {"size 0", 0x1000, {}, {}},
    };
    for (const MaskedCase& c : cases) {
        SCOPED_TRACE(c.name);
        server.clear();
        std::vector<unsigned char> mask = c.mask;
        std::vector<unsigned char> buffer(mask.size() + 1, 0xEE);
        EXPECT_EQ(PXST_ReadBlockMasked(handle, c.address, buffer.data(),
                                       static_cast<unsigned int>(mask.size()), mask.data()),
                  PXST_RESULT_OK);
        EXPECT_EQ(server.accesses(), c.expected);
        for (size_t i = 0; i < mask.size(); ++i) {
            const unsigned char expected = mask[i] == 0xFF ? patternByte(c.address + i) : 0;
            ASSERT_EQ(buffer[i], expected) << "byte " << i;
        }
        EXPECT_EQ(buffer[mask.size()], 0xEE) << "wrote past the buffer";
    }
}

TEST_F(ApiTransfer, MaskedReadStopsAtTheFirstFailingReadKeepingWhatWasRead)
{
    server.poison(0x1002);
    unsigned char mask[] = {0xFF, 0x00, 0xFF, 0xFF, 0xFF};
    unsigned char buffer[5];
    std::fill(std::begin(buffer), std::end(buffer), 0xEE);
    EXPECT_EQ(PXST_ReadBlockMasked(handle, 0x1000, buffer, 5, mask), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(buffer[0], patternByte(0x1000));
    for (int i = 1; i < 5; ++i)
        EXPECT_EQ(buffer[i], 0) << i;
    EXPECT_EQ(server.accesses(), (QList<Access>{read(0x1000, 1), read(0x1002, 2)}));
}

TEST_F(ApiTransfer, BatchReadIsTheBlockRead)
{
    unsigned char buffer[10] = {};
    EXPECT_EQ(PXST_BatchRead(handle, 0x1000, buffer, 10), PXST_RESULT_OK);
    EXPECT_EQ(server.accesses(), (QList<Access>{read(0x1000, 8), read(0x1008, 2)}));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(buffer[i], patternByte(0x1000 + i));
}

TEST_F(ApiTransfer, LoadWritesOneBlockPerPacketInFileOrderAndVerifyReadsThemBack)
{
    const QByteArray file = lodFile({"# image", "@00001000", "12345678", "9ABCDEF0", "",
                                     "@F0000000", "DEADBEEF", "@00002000", "CAFEF00D"});
    unsigned int fail = 77;
    EXPECT_EQ(PXST_LoadLod(handle, file.constData(), 1, &fail), PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    EXPECT_EQ(server.accesses(), (QList<Access>{write(0x1000, 8), write(0x2000, 4), read(0x1000, 8),
                                                read(0x2000, 4)}));
    EXPECT_EQ(server.byteAt(0x1000), 0x78);
    EXPECT_EQ(server.byteAt(0x1007), 0x9A);
    EXPECT_EQ(server.byteAt(0x2003), 0xCA);

    server.clear();
    fail = 77;
    EXPECT_EQ(PXST_LoadLod(handle, file.constData(), 0, &fail), PXST_RESULT_OK);
    EXPECT_EQ(fail, 77u) << "a load without verification never writes the fail address";
    EXPECT_EQ(server.accesses(), (QList<Access>{write(0x1000, 8), write(0x2000, 4)}));
}

TEST_F(ApiTransfer, VerifyReportsTheFirstDifferingWord)
{
    const quint32 base = 0x1000;
    QStringList lines{"@00001000"};
    for (quint32 i = 0; i < 5; ++i)
        lines << hex8(i == 2 || i == 4 ? ~patternWord(base + 4 * i) : patternWord(base + 4 * i));
    const QByteArray file = lodFile(lines);
    unsigned int fail = 0;
    EXPECT_EQ(PXST_VerifyLod(handle, file.constData(), &fail), PXST_RESULT_MISMATCH);
    EXPECT_EQ(fail, 0x1008u);
    EXPECT_EQ(PXST_VerifyLod(handle, file.constData(), nullptr), PXST_RESULT_MISMATCH);
    fail = 0;
    EXPECT_EQ(PXST_VerifyLodProgress(handle, file.constData(), &fail, nullptr, nullptr),
              PXST_RESULT_MISMATCH);
    EXPECT_EQ(fail, 0x1008u);
    // Packets at the skipped address are never compared.
    server.clear();
    const QByteArray skipped = lodFile({"@F0000000", "0", "1"});
    EXPECT_EQ(PXST_VerifyLod(handle, skipped.constData(), &fail), PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    EXPECT_TRUE(server.accesses().isEmpty());
}

TEST_F(ApiTransfer, FileProblemsGiveTheirCodes)
{
    unsigned int fail = 77;
    EXPECT_EQ(PXST_LoadLod(handle, path("missing.lod").constData(), 1, &fail), PXST_RESULT_FILE);
    EXPECT_EQ(PXST_VerifyLod(handle, path("missing.lod").constData(), &fail), PXST_RESULT_FILE);
    EXPECT_EQ(PXST_DumpLod(handle, path("no/such/dir.lod").constData(), 0, 1, 0), PXST_RESULT_FILE);
    EXPECT_TRUE(server.accesses().isEmpty());

    // A stray data line after the second packet: both packets are written, then 15.
    const QByteArray stray = lodFile({"@1000", "1", "@2000", "2", "", "3"});
    EXPECT_EQ(PXST_LoadLod(handle, stray.constData(), 1, &fail), PXST_RESULT_LOD_FORMAT);
    EXPECT_EQ(server.accesses(), (QList<Access>{write(0x1000, 4), write(0x2000, 4)}));
    server.clear();
    EXPECT_EQ(PXST_VerifyLod(handle, stray.constData(), &fail), PXST_RESULT_LOD_FORMAT);
    EXPECT_EQ(server.accesses(), (QList<Access>{read(0x1000, 4), read(0x2000, 4)}));
    const QByteArray leading = lodFile({"5", "@1000", "1"});
    EXPECT_EQ(PXST_LoadLodProgress(handle, leading.constData(), 0, &fail, nullptr, nullptr),
              PXST_RESULT_LOD_FORMAT);
}

TEST_F(ApiTransfer, FailingBlockReadsEndTheTransferWithTheirCode)
{
    server.poison(0x2004);
    const QByteArray file = lodFile({"@1000", hex8(patternWord(0x1000)), "@2000", "1", "2"});
    unsigned int fail = 77;
    EXPECT_EQ(PXST_VerifyLod(handle, file.constData(), &fail), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(fail, 0u);

    const QByteArray dump = path("dump.lod");
    EXPECT_EQ(PXST_DumpLod(handle, dump.constData(), 0x2000, 4, 0), PXST_RESULT_TIMEOUT);
    EXPECT_TRUE(QFile::exists(QString::fromLocal8Bit(dump)));
    EXPECT_TRUE(readFile(QString::fromLocal8Bit(dump)).isEmpty()) << "a failed dump is empty";
}

TEST_F(ApiTransfer, UnacknowledgedBlockWriteEndsTheLoadAfterEarlierPacketsWereWritten)
{
    server.poison(0x2000);
    const QByteArray file = lodFile({"@1000", "11223344", "@2000", "1", "@3000", "1"});
    unsigned int fail = 77;
    EXPECT_EQ(PXST_LoadLod(handle, file.constData(), 1, &fail), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(fail, 77u);
    EXPECT_EQ(server.byteAt(0x1000), 0x44);
    EXPECT_EQ(server.accesses(), (QList<Access>{write(0x1000, 4), write(0x2000, 4)}));
}

TEST_F(ApiTransfer, DumpWritesLodTextOrRawWords)
{
    const QByteArray text = path("dump.lod");
    ASSERT_EQ(PXST_DumpLod(handle, text.constData(), 0x1000, 2, 0), PXST_RESULT_OK);
    EXPECT_EQ(readFile(QString::fromLocal8Bit(text)),
              QStringLiteral("@00001000\n%1\n%2\n")
                  .arg(hex8(patternWord(0x1000)), hex8(patternWord(0x1004)))
                  .toLatin1());
    EXPECT_EQ(server.accesses(), QList<Access>{read(0x1000, 8)});

    const QByteArray binary = path("dump.bin");
    ASSERT_EQ(PXST_DumpLod(handle, binary.constData(), 0x1000, 2, 1), PXST_RESULT_OK);
    QByteArray expected;
    for (quint32 a = 0x1000; a < 0x1008; ++a)
        expected.append(char(patternByte(a)));
    EXPECT_EQ(readFile(QString::fromLocal8Bit(binary)), expected);

    server.clear();
    ASSERT_EQ(PXST_DumpLod(handle, text.constData(), 0x1000, 0, 0), PXST_RESULT_OK);
    EXPECT_EQ(readFile(QString::fromLocal8Bit(text)), QByteArray("@00001000\n"));
    ASSERT_EQ(PXST_DumpLod(handle, binary.constData(), 0x1000, 0, 1), PXST_RESULT_OK);
    EXPECT_TRUE(readFile(QString::fromLocal8Bit(binary)).isEmpty());
    EXPECT_TRUE(server.accesses().isEmpty());
}

namespace {

struct ProgressLog
{
    std::vector<unsigned long long> done;
    std::vector<unsigned long long> totals;
};

void logProgress(unsigned long long done, unsigned long long total, void* userData)
{
    auto* log = static_cast<ProgressLog*>(userData);
    log->done.push_back(done);
    log->totals.push_back(total);
}

} // namespace

TEST_F(ApiTransfer, ProgressVariantsReportEveryChunkOfAtMost64KiB)
{
    // 50000 words = 200000 bytes: chunks of 65536, 65536, 65536 and 3392 bytes.
    QStringList lines{"@00100000"};
    for (int i = 0; i < 50000; ++i)
        lines << hex8(quint32(i) * 2654435761u);
    lines << "@F0000000"
          << "1"
          << "@00200000";
    const QByteArray file = lodFile(lines);

    ProgressLog log;
    unsigned int fail = 77;
    ASSERT_EQ(PXST_LoadLodProgress(handle, file.constData(), 1, &fail, logProgress, &log),
              PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    const std::vector<unsigned long long> expected = {65536,  131072, 196608, 200000, 200000,
                                                      265536, 331072, 396608, 400000, 400000};
    EXPECT_EQ(log.done, expected);
    EXPECT_EQ(log.totals, std::vector<unsigned long long>(expected.size(), 400000));
    // Each 64 KiB chunk went out as two writes of 32768 bytes.
    const QList<Access> all = server.accesses();
    EXPECT_EQ(all.value(0), write(0x100000, 32768));
    EXPECT_EQ(all.value(1), write(0x108000, 32768));
    EXPECT_EQ(all.value(6), write(0x130000, 3392));
    // The empty packet costs a block call that sends nothing; verification follows.
    EXPECT_EQ(all.value(7), read(0x100000, 32768));
    EXPECT_EQ(all.size(), 14);

    log = {};
    ASSERT_EQ(PXST_VerifyLodProgress(handle, file.constData(), &fail, logProgress, &log),
              PXST_RESULT_OK);
    EXPECT_EQ(log.done, (std::vector<unsigned long long>{65536, 131072, 196608, 200000, 200000}));
    EXPECT_EQ(log.totals.back(), 200000u);

    log = {};
    const QByteArray dump = path("dump.bin");
    ASSERT_EQ(PXST_DumpLodProgress(handle, dump.constData(), 0x100000, 50000, 1, logProgress, &log),
              PXST_RESULT_OK);
    EXPECT_EQ(log.done, (std::vector<unsigned long long>{65536, 131072, 196608, 200000}));
    EXPECT_EQ(log.totals.back(), 200000u);
    const QByteArray bytes = readFile(QString::fromLocal8Bit(dump));
    ASSERT_EQ(bytes.size(), 200000);
    for (int i = 0; i < 50000; i += 997) {
        quint32 word;
        std::memcpy(&word, bytes.constData() + 4 * i, 4);
        EXPECT_EQ(word, quint32(i) * 2654435761u) << i;
    }
}
