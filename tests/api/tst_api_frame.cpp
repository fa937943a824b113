// The C interface against the fake server: handle resolution for every function, the open
// family, argument narrowing, status, and the calls that need no server.

#include "ApiTestSupport.h"
#include "RefusedPort.h"

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

using namespace apitest;

namespace {

void noCallback(void*) {}
void noProgress(unsigned long long, unsigned long long, void*) {}

int openTo(quint16 port)
{
    int handle = 0;
    EXPECT_EQ(PXST_OpenSocket("127.0.0.1", port, &handle), PXST_RESULT_OK);
    return handle;
}

} // namespace

// Failed opens (11, handle -1) are checked by tst_api_handles and the C header check.
TEST(ApiNoServer, ResultTexts)
{
    const std::string unknown = PXST_ResultText(1);
    EXPECT_EQ(unknown, "unknown result code");
    std::set<std::string> texts;
    for (unsigned int code : {0, 3, 5, 6, 8, 11, 12, 13, 15, 16, 17, 19, 20, 30})
        EXPECT_TRUE(texts.insert(PXST_ResultText(code)).second && texts.count(unknown) == 0)
            << code << " has no text of its own";
    for (unsigned int code : {2u, 4u, 14u, 18u, 21u, 31u, 0xFFFFFFFFu})
        EXPECT_EQ(PXST_ResultText(code), unknown) << code;

    unsigned char buffer[4] = {};
    EXPECT_EQ(PXST_ReadBlockUSB(1, 0x1000, buffer, 4), PXST_RESULT_UNSUPPORTED);
}

// Every function that takes a handle: 3 for a handle never given out and for a closed one,
// 12 for a known handle whose connection lost its socket, before it touches anything; out
// parameters stay as they were, except the verify fail address, which is zeroed.
TEST(ApiHandleFrame, EveryFunctionChecksTheHandleAndTheSocketFirst)
{
    QTemporaryDir dir;
    const QByteArray lodPath = writeLines(dir.filePath("ok.lod"), {"@1000", "1"});
    const QByteArray dumpPath = QFile::encodeName(dir.filePath("dump.bin"));
    const char *lod = lodPath.constData(), *dump = dumpPath.constData();
    unsigned char byte = 0, flow = 0, buffer[16] = {}, mask[16];
    std::fill(std::begin(mask), std::end(mask), 0xFF);
    unsigned short half = 0;
    unsigned int word = 77, fail = 77, words[4] = {};
    int length = 0;

    using Call = std::function<unsigned int(int)>;
    // clang-format off
    const std::pair<const char*, Call> calls[] = {
        {"Ping", [](int h) { return PXST_Ping(h); }},
        {"LaunchTargetAutoBauding", [](int h) { return PXST_LaunchTargetAutoBauding(h); }},
        {"KillPellix", [](int h) { return PXST_KillPellix(h); }},
        {"ChangeFlowMode", [](int h) { return PXST_ChangeFlowMode(h, PXL_FLOW_XONXOFF); }},
        {"ComBreak", [](int h) { return PXST_ComBreak(h); }},
        {"PellixStatus", [&](int h) { return PXST_PellixStatus(h, &word); }},
        {"SpecifyUSBIdPolicy", [](int h) { return PXST_SpecifyUSBIdPolicy(h, 1, 2); }},
        {"PellixClean", [](int h) { return PXST_PellixClean(h); }},
        {"PellixFlushFifos", [](int h) { return PXST_PellixFlushFifos(h); }},
        {"ForcePellixReconnection", [](int h) { return PXST_ForcePellixReconnection(&h); }},
        {"EnableEvents", [](int h) { return PXST_EnableEvents(h, 1); }},
        {"PopEvent", [&](int h) { return PXST_PopEvent(h, &word); }},
        {"WaitEvent", [&](int h) { return PXST_WaitEvent(h, &word, 10); }},
        {"FlushEvents", [](int h) { return PXST_FlushEvents(h); }},
        {"EventSetCallback", [](int h) { return PXST_EventSetCallback(h, noCallback, nullptr); }},
        {"BypassEnable", [&](int h) { return PXST_BypassEnable(h, buffer, 1); }},
        {"BypassGetPacket", [&](int h) { return PXST_BypassGetPacket(h, &flow, buffer, 16, &length); }},
        {"BypassGetData", [&](int h) { return PXST_BypassGetData(h, buffer, 16, &length); }},
        {"BypassWaitPacket", [&](int h) { return PXST_BypassWaitPacket(h, &flow, buffer, 16, &length, 10); }},
        {"BypassSendPacket", [&](int h) { return PXST_BypassSendPacket(h, 0x21, buffer, 4); }},
        {"BypassFlushPackets", [](int h) { return PXST_BypassFlushPackets(h); }},
        {"BypassSetCallback", [](int h) { return PXST_BypassSetCallback(h, noCallback, nullptr); }},
        {"BypassSetDelayCallback", [](int h) { return PXST_BypassSetDelayCallback(h, noCallback, nullptr, 10); }},
        {"ReadInternal", [&](int h) { return PXST_ReadInternal(h, 0x10, &byte); }},
        {"Read8", [&](int h) { return PXST_Read8(h, 0x1000, &byte); }},
        {"Read16", [&](int h) { return PXST_Read16(h, 0x1000, &half); }},
        {"Read32", [&](int h) { return PXST_Read32(h, 0x1000, &word); }},
        {"ReadBlock", [&](int h) { return PXST_ReadBlock(h, 0x1000, buffer, 16); }},
        {"WriteInternal", [](int h) { return PXST_WriteInternal(h, 0x10, 1); }},
        {"Write8", [](int h) { return PXST_Write8(h, 0x1000, 1); }},
        {"Write16", [](int h) { return PXST_Write16(h, 0x1000, 1); }},
        {"Write32", [](int h) { return PXST_Write32(h, 0x1000, 1); }},
        {"WriteBlock", [&](int h) { return PXST_WriteBlock(h, 0x1000, words, 16); }},
        {"ReadBlockMasked", [&](int h) { return PXST_ReadBlockMasked(h, 0x1000, buffer, 16, mask); }},
        {"BatchRead", [&](int h) { return PXST_BatchRead(h, 0x1000, buffer, 16); }},
        {"LoadLod", [&](int h) { return PXST_LoadLod(h, lod, 1, &word); }},
        {"VerifyLod", [&](int h) { return PXST_VerifyLod(h, lod, &fail); }},
        {"DumpLod", [&](int h) { return PXST_DumpLod(h, dump, 0x1000, 4, 1); }},
        {"LoadLodProgress", [&](int h) { return PXST_LoadLodProgress(h, lod, 1, &word, noProgress, nullptr); }},
        {"VerifyLodProgress", [&](int h) { return PXST_VerifyLodProgress(h, lod, &fail, noProgress, nullptr); }},
        {"DumpLodProgress", [&](int h) { return PXST_DumpLodProgress(h, dump, 0x1000, 4, 1, noProgress, nullptr); }},
    };
    // clang-format on

    MemoryServer server;
    const int closed = openTo(server.port());
    ASSERT_EQ(PXST_Close(closed), PXST_RESULT_OK);
    const int unplugged = openTo(server.port());
    // The socket can go missing only through a failed reopen of the C++ object.
    ASSERT_FALSE(
        PXConnection::GetById(unplugged)->open(QStringLiteral("127.0.0.1"), refusedPort()));
    server.clear();

    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        for (int handle : {0, -1, 987654, closed}) {
            fail = 77;
            EXPECT_EQ(call(handle), PXST_RESULT_UNKNOWN_HANDLE) << handle;
            EXPECT_EQ(fail, std::string(name).rfind("Verify", 0) == 0 ? 0u : 77u);
        }
        EXPECT_EQ(call(unplugged), PXST_RESULT_NOT_CONNECTED);
        EXPECT_EQ(word, 77u);
    }
    // Nothing reached the server, and the dump never created its file.
    EXPECT_TRUE(server.fake().received().isEmpty());
    EXPECT_FALSE(QFile::exists(dir.filePath("dump.bin")));

    for (int handle : {unplugged, closed, 987654})
        EXPECT_EQ(PXST_HandleStatus(handle), 0) << handle;
    EXPECT_EQ(PXST_Close(unplugged), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(unplugged), PXST_RESULT_UNKNOWN_HANDLE);
}

// Unlike PXST_OpenSocket, PXST_Open pings the server it reached (here a forced one).
TEST(ApiOpen, OpenPingsAndOpenSocketSendsNothing)
{
    MemoryServer server;
    int first = openTo(server.port()), second = 0;
    qputenv("FORCED_PELLIX_HOST", "127.0.0.1");
    qputenv("FORCED_PELLIX_PORT", QByteArray::number(server.port()));
    const unsigned int result = PXST_Open(140, -1, PXL_FLOW_NONE, &second);
    qunsetenv("FORCED_PELLIX_HOST");
    qunsetenv("FORCED_PELLIX_PORT");
    ASSERT_EQ(result, PXST_RESULT_OK);
    EXPECT_EQ(server.fake().frames(), QList<QByteArray>{pxproto::ping()});
    EXPECT_EQ(PXST_Close(first) + PXST_Close(second), PXST_RESULT_OK);
}

// One forwarding check per argument kind: values are narrowed to the operation's width.
TEST(ApiPassThrough, ValuesAreNarrowedToTheWidthOfTheOperation)
{
    MemoryServer server;
    int h = openTo(server.port());
    const int copy = h;
    unsigned char byte = 0xFF, half[] = {0x45, 0x23}, internal = 0xAB, payload[] = {1, 2};
    EXPECT_EQ(PXST_Write8(h, 0x1000, 0x1FF), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Write16(h, 0x1002, 0x12345), PXST_RESULT_OK);
    EXPECT_EQ(PXST_WriteInternal(h, 0x20, 0x3AB), PXST_RESULT_OK);
    EXPECT_EQ(PXST_SpecifyUSBIdPolicy(h, 0x11234, 0x5678), PXST_RESULT_OK);
    EXPECT_EQ(PXST_BypassSendPacket(h, 0x121, payload, 2), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ForcePellixReconnection(&h), PXST_RESULT_OK);
    EXPECT_EQ(h, copy) << "a forced reconnection keeps the handle";
    EXPECT_EQ(
        server.fake().frames(),
        (QList<QByteArray>{pxproto::writeRequest(0x1000, false, &byte, 1),
                           pxproto::writeRequest(0x1002, false, half, 2),
                           pxproto::writeRequest(0x20, true, &internal, 1),
                           pxproto::setUsbId(0x1234, 0x5678), pxproto::bypassSend(0x21, payload, 2),
                           pxproto::forceReconnect()}));
    PXST_Close(h);
}

TEST(ApiPellixStatus, NonZeroStatusByteReadsAsOneAndFailureAsZero)
{
    MemoryServer server;
    const int h = openTo(server.port());
    for (int byte : {5, 1, 0xFF, 0, -1}) {
        server.setStatus(byte);
        unsigned int status = 77;
        EXPECT_EQ(PXST_PellixStatus(h, &status), byte < 0 ? PXST_RESULT_TIMEOUT : PXST_RESULT_OK);
        EXPECT_EQ(status, byte > 0 ? 1u : 0u) << byte;
    }
    PXST_Close(h);
}
