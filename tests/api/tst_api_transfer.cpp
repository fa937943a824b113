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
    QByteArray path(const char* name) const { return dir.filePath(name).toLocal8Bit(); }

    QTemporaryDir dir;
    MemoryServer server;
    int handle = 0;
};

QString hex8(quint32 value)
{
    return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0')).toUpper();
}

QString word(quint32 address, bool inverted = false)
{
    quint32 word = 0;
    for (int i = 3; i >= 0; --i)
        word = word << 8 | patternByte(address + quint32(i));
    return hex8(inverted ? ~word : word);
}

std::vector<unsigned char> all(size_t size, unsigned char value = 0xFF)
{
    return std::vector<unsigned char>(size, value);
}

} // namespace

TEST_F(ApiTransfer, MaskedReadUsesTheWidestAccessEachRunAllowsAndSkipsUnselectedBytes)
{
    std::vector<unsigned char> gapped = all(12);
    gapped[5] = 0x00;
    const struct
    {
        const char* name;
        quint32 address;
        std::vector<unsigned char> mask;
        QList<Access> expected;
    } cases[] = {
        // clang-format off
        {"aligned 8", 0x1000, all(8), {read(0x1000, 8)}},
        {"run of 6 rounds down", 0x1000, all(6), {read(0x1000, 4), read(0x1004, 2)}},
        {"odd start", 0x1001, all(4), {read(0x1001, 1), read(0x1002, 2), read(0x1004, 1)}},
        {"start 2 mod 4", 0x1002, all(4), {read(0x1002, 2), read(0x1004, 2)}},
        {"gap", 0x1000, {0xFF, 0x00, 0xFF, 0xFF}, {read(0x1000, 1), read(0x1002, 2)}},
        {"partial mask byte", 0x1000, {0xFF, 0x0F, 0xFF, 0xFF}, {read(0x1000, 1), read(0x1002, 2)}},
        {"13 bytes", 0x1000, all(13), {read(0x1000, 12), read(0x100C, 1)}},
        {"15 bytes", 0x1000, all(15), {read(0x1000, 12), read(0x100C, 2), read(0x100E, 1)}},
        {"run of 5 then a gap", 0x1000, gapped,
         {read(0x1000, 4), read(0x1004, 1), read(0x1006, 2), read(0x1008, 4)}},
        {"third byte unselected", 0x1000, {0xFF, 0xFF, 0x00, 0xFF, 0xFF},
         {read(0x1000, 2), read(0x1003, 1), read(0x1004, 1)}},
        {"beyond the block read limit", 0x4000, all(40000), {read(0x4000, 40000)}},
        {"nothing selected", 0x1000, all(8, 0x00), {}},
        {"size 0", 0x1000, {}, {}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        server.clear();
        std::vector<unsigned char> mask = c.mask;
        std::vector<unsigned char> buffer(mask.size() + 1, 0xEE);
        EXPECT_EQ(PXST_ReadBlockMasked(handle, c.address, buffer.data(),
                                       static_cast<unsigned int>(mask.size()), mask.data()),
                  PXST_RESULT_OK);
        EXPECT_EQ(server.accesses(), c.expected);
        for (size_t i = 0; i < mask.size(); ++i)
            ASSERT_EQ(buffer[i], mask[i] == 0xFF ? patternByte(c.address + i) : 0) << i;
        EXPECT_EQ(buffer[mask.size()], 0xEE) << "wrote past the buffer";
    }
    // A failing read ends the call; what was read before it is kept, the rest is 0.
    server.clear();
    server.poison(0x2002);
    unsigned char mask[] = {0xFF, 0x00, 0xFF, 0xFF, 0xFF}, buffer[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(PXST_ReadBlockMasked(handle, 0x2000, buffer, 5, mask), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(buffer), 5),
              QByteArray(1, char(patternByte(0x2000))) + QByteArray(4, 0));
    EXPECT_EQ(server.accesses(), (QList<Access>{read(0x2000, 1), read(0x2002, 2)}));
}

// Each LOD transfer against a fresh server: result, fail address, the accesses in order.
TEST_F(ApiTransfer, LodTransfersAndTheirFailures)
{
    enum Op { Load, LoadNoVerify, Verify, Dump };
    const QStringList image{"# image",   "@00001000", "12345678",  "9ABCDEF0", "",
                            "@F0000000", "DEADBEEF",  "@00002000", "CAFEF00D"};
    const QStringList stray{"@1000", word(0x1000), "@2000", word(0x2000), "", "3"};
    const struct
    {
        const char* name;
        Op op;
        QStringList lines; // empty: a file that does not exist
        quint32 poison;
        unsigned int result;
        unsigned int fail;
        QList<Access> expected;
    } cases[] = {
        // clang-format off
        {"load, skip 0xF0000000, verify", Load, image, 0, PXST_RESULT_OK, 0,
         {write(0x1000, 8), write(0x2000, 4), read(0x1000, 8), read(0x2000, 4)}},
        {"load without verify", LoadNoVerify, image, 0, PXST_RESULT_OK, 77,
         {write(0x1000, 8), write(0x2000, 4)}},
        {"verify mismatch at the first differing word", Verify, {"@1000", word(0x1000),
         word(0x1004), word(0x1008, true), word(0x100C), word(0x1010, true)}, 0,
         PXST_RESULT_MISMATCH, 0x1008, {read(0x1000, 20)}},
        {"verify skips 0xF0000000", Verify, {"@F0000000", "0", "1"}, 0, PXST_RESULT_OK, 0, {}},
        {"stray data line: load writes earlier packets", LoadNoVerify, stray, 0,
         PXST_RESULT_LOD_FORMAT, 77, {write(0x1000, 4), write(0x2000, 4)}},
        {"stray data line: verify", Verify, stray, 0, PXST_RESULT_LOD_FORMAT, 0,
         {read(0x1000, 4), read(0x2000, 4)}},
        {"leading data line", LoadNoVerify, {"5", "@1000", "1"}, 0, PXST_RESULT_LOD_FORMAT, 77, {}},
        {"missing file: load", Load, {}, 0, PXST_RESULT_FILE, 77, {}},
        {"missing file: verify", Verify, {}, 0, PXST_RESULT_FILE, 0, {}},
        {"dump into a missing folder", Dump, {}, 0, PXST_RESULT_FILE, 77, {}},
        {"unacknowledged write ends the load", Load, {"@1000", "11223344", "@2000", "1", "@3000",
         "1"}, 0x2000, PXST_RESULT_TIMEOUT, 77, {write(0x1000, 4), write(0x2000, 4)}},
        {"failing read ends the verify", Verify, {"@1000", word(0x1000), "@2000", "1", "2"},
         0x2004, PXST_RESULT_TIMEOUT, 0, {read(0x1000, 4), read(0x2000, 8)}},
        {"failing read ends the dump, leaving an empty file", Dump, {"x"}, 0x2004,
         PXST_RESULT_TIMEOUT, 77, {read(0x2000, 16)}},
        // clang-format on
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        MemoryServer fresh;
        int h = 0;
        ASSERT_EQ(PXST_OpenSocket("127.0.0.1", fresh.port(), &h), PXST_RESULT_OK);
        if (c.poison != 0)
            fresh.poison(c.poison);
        const QString name = dir.filePath(QString::number(index++));
        QByteArray file = c.lines.isEmpty() ? QFile::encodeName(name + "/missing")
                                            : writeLines(name + ".lod", c.lines);
        unsigned int fail = 77;
        unsigned int result = 0;
        switch (c.op) {
        case Load:
        case LoadNoVerify:
            result = PXST_LoadLod(h, file.constData(), c.op == Load, &fail);
            break;
        case Verify:
            result = PXST_VerifyLod(h, file.constData(), &fail);
            break;
        case Dump:
            result = PXST_DumpLod(h, file.constData(), 0x2000, 4, 0);
            break;
        }
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(fail, c.fail);
        EXPECT_EQ(fresh.accesses(), c.expected);
        EXPECT_TRUE(c.op != Dump || c.lines.isEmpty() || readFile(name + ".lod").isEmpty())
            << "a failed dump leaves an empty file";
        PXST_Close(h);
    }
}

namespace {

using Steps = std::vector<unsigned long long>;

void logProgress(unsigned long long done, unsigned long long total, void* userData)
{
    static_cast<Steps*>(userData)->push_back(done);
    static_cast<Steps*>(userData)->push_back(total);
}

} // namespace

// Progress after every chunk of at most 64 KiB, as (done, total) pairs.
TEST_F(ApiTransfer, ProgressVariantsReportEveryChunk)
{
    // 50000 words = 200000 bytes: chunks of 65536, 65536, 65536 and 3392 bytes.
    QStringList lines{"@00100000"};
    for (int i = 0; i < 50000; ++i)
        lines << hex8(quint32(i) * 2654435761u);
    const QByteArray file = writeLines(dir.filePath("big.lod"), lines << "@F0000000"
                                                                      << "1"
                                                                      << "@00200000");
    const Steps verify = {65536,  200000, 131072, 200000, 196608,
                          200000, 200000, 200000, 200000, 200000};
    Steps log;
    unsigned int fail = 77;
    ASSERT_EQ(PXST_LoadLodProgress(handle, file.constData(), 1, &fail, logProgress, &log),
              PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    // The empty packet reports once more; verification continues from the written total.
    EXPECT_EQ(log, (Steps{65536,  400000, 131072, 400000, 196608, 400000, 200000,
                          400000, 200000, 400000, 265536, 400000, 331072, 400000,
                          396608, 400000, 400000, 400000, 400000, 400000}));
    // Each 64 KiB chunk went out as two writes of 32768 bytes; the empty packet sends nothing.
    const QList<Access> accesses = server.accesses();
    EXPECT_EQ(accesses.mid(0, 2), (QList<Access>{write(0x100000, 32768), write(0x108000, 32768)}));
    EXPECT_EQ(accesses.mid(6, 2), (QList<Access>{write(0x130000, 3392), read(0x100000, 32768)}));
    EXPECT_EQ(accesses.size(), 14);
    log.clear();
    ASSERT_EQ(PXST_VerifyLodProgress(handle, file.constData(), &fail, logProgress, &log),
              PXST_RESULT_OK);
    EXPECT_EQ(log, verify);
    log.clear();
    const QString dump = dir.filePath("dump.bin");
    ASSERT_EQ(PXST_DumpLodProgress(handle, QFile::encodeName(dump), 0x100000, 50000, 1, logProgress,
                                   &log),
              PXST_RESULT_OK);
    EXPECT_EQ(log, Steps(verify.begin(), verify.end() - 2));
    EXPECT_EQ(readFile(dump).size(), 200000); // its content: tst_api_simulator
}
