// The C interface against the scripted fake server: handle resolution for every function,
// argument narrowing, the open family, status, and the calls that need no server.

#include "ApiTestSupport.h"
#include "RefusedPort.h"

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QFile>
#include <QTcpServer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

using namespace apitest;

namespace {

namespace req = pxproto::request;

void noCallback(void*) {}
void noProgress(unsigned long long, unsigned long long, void*) {}

int openTo(quint16 port)
{
    int handle = 0;
    EXPECT_EQ(PXST_OpenSocket("127.0.0.1", port, &handle), PXST_RESULT_OK);
    return handle;
}

quint16 deadPort()
{
    return refusedPort();
}

// The frames of one flow id that the server received.
QList<QByteArray> framesOf(FakeServer& server, unsigned char flow)
{
    QList<QByteArray> out;
    for (const QByteArray& frame : server.frames()) {
        if (pxproto::flowId(frame) == flow)
            out.append(frame);
    }
    return out;
}

} // namespace

TEST(ApiResultText, EveryCodeHasItsOwnTextAndUnknownCodesShareOne)
{
    const unsigned int codes[] = {0, 3, 5, 6, 8, 11, 12, 13, 15, 16, 17, 19, 20, 30};
    const std::string unknown = PXST_ResultText(1);
    EXPECT_EQ(unknown, "unknown result code");
    std::set<std::string> texts;
    for (unsigned int code : codes) {
        const std::string text = PXST_ResultText(code);
        EXPECT_NE(text, unknown) << code;
        EXPECT_FALSE(text.empty()) << code;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), std::size(codes));
    for (unsigned int code : {2u, 4u, 14u, 18u, 21u, 31u, 0xFFFFFFFFu})
        EXPECT_EQ(PXST_ResultText(code), unknown) << code;
}

TEST(ApiUnsupported, OpenVariantsGiveNoConnectionAndRawCallsAreUnsupported)
{
    int handle = 42;
    EXPECT_EQ(PXST_RawOpen(3, 921600, 1, &handle), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(handle, -1);
    handle = 42;
    EXPECT_EQ(PXST_USBOpen(0, &handle), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(handle, -1);
    handle = 42;
    EXPECT_EQ(PXST_BirchOpen(3, 921600, &handle), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(handle, -1);
    handle = 42;
    unsigned char ids[] = {0x21};
    EXPECT_EQ(PXST_USBBypassOpen(0, ids, 1, &handle), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(handle, -1);

    // Before any connection exists, and with handles that were never given out.
    unsigned char buffer[4] = {};
    int length = 7;
    EXPECT_EQ(PXST_RawSendData(1, buffer, 4), PXST_RESULT_UNSUPPORTED);
    EXPECT_EQ(PXST_RawGetData(1, buffer, 4, &length), PXST_RESULT_UNSUPPORTED);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(PXST_RawFlushData(1), PXST_RESULT_UNSUPPORTED);
    EXPECT_EQ(PXST_ReadBlockUSB(1, 0x1000, buffer, 4), PXST_RESULT_UNSUPPORTED);
}

// Every function that takes a handle: 3 for a handle never given out and for a closed one,
// 12 for a known handle whose connection lost its socket, before it touches anything.
TEST(ApiHandleFrame, EveryFunctionChecksTheHandleAndTheSocketFirst)
{
    QTemporaryDir dir;
    const QByteArray lod = writeLines(dir.filePath("ok.lod"), {"@1000", "1"}).toLocal8Bit();
    const QByteArray dump = dir.filePath("dump.bin").toLocal8Bit();

    unsigned char byte = 0;
    unsigned short half = 0;
    unsigned int word = 0;
    unsigned char buffer[16] = {};
    unsigned char mask[16];
    std::fill(std::begin(mask), std::end(mask), 0xFF);
    unsigned int words[4] = {};
    int length = 0;
    unsigned char flow = 0;

    using Call = std::function<unsigned int(int)>;
    const std::vector<std::pair<const char*, Call>> calls = {
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
        {"BypassGetPacket",
         [&](int h) { return PXST_BypassGetPacket(h, &flow, buffer, 16, &length); }},
        {"BypassGetData", [&](int h) { return PXST_BypassGetData(h, buffer, 16, &length); }},
        {"BypassWaitPacket",
         [&](int h) { return PXST_BypassWaitPacket(h, &flow, buffer, 16, &length, 10); }},
        {"BypassSendPacket", [&](int h) { return PXST_BypassSendPacket(h, 0x21, buffer, 4); }},
        {"BypassFlushPackets", [](int h) { return PXST_BypassFlushPackets(h); }},
        {"BypassSetCallback", [](int h) { return PXST_BypassSetCallback(h, noCallback, nullptr); }},
        {"BypassSetDelayCallback",
         [](int h) { return PXST_BypassSetDelayCallback(h, noCallback, nullptr, 10); }},
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
        {"ReadBlockMasked",
         [&](int h) { return PXST_ReadBlockMasked(h, 0x1000, buffer, 16, mask); }},
        {"BatchRead", [&](int h) { return PXST_BatchRead(h, 0x1000, buffer, 16); }},
        {"LoadLod", [&](int h) { return PXST_LoadLod(h, lod.constData(), 1, &word); }},
        {"VerifyLod", [&](int h) { return PXST_VerifyLod(h, lod.constData(), &word); }},
        {"DumpLod", [&](int h) { return PXST_DumpLod(h, dump.constData(), 0x1000, 4, 1); }},
        {"LoadLodProgress",
         [&](int h) {
             return PXST_LoadLodProgress(h, lod.constData(), 1, &word, noProgress, nullptr);
         }},
        {"VerifyLodProgress",
         [&](int h) {
             return PXST_VerifyLodProgress(h, lod.constData(), &word, noProgress, nullptr);
         }},
        {"DumpLodProgress",
         [&](int h) {
             return PXST_DumpLodProgress(h, dump.constData(), 0x1000, 4, 1, noProgress, nullptr);
         }},
    };

    MemoryServer server;
    const int closed = openTo(server.port());
    ASSERT_EQ(PXST_Close(closed), PXST_RESULT_OK);
    const int unplugged = openTo(server.port());
    ASSERT_GT(unplugged, closed);
    // The socket can go missing only through a failed reopen of the C++ object.
    ASSERT_FALSE(PXConnection::GetById(unplugged)->open(QStringLiteral("127.0.0.1"), deadPort()));
    server.clear();

    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        EXPECT_EQ(call(0), PXST_RESULT_UNKNOWN_HANDLE);
        EXPECT_EQ(call(-1), PXST_RESULT_UNKNOWN_HANDLE);
        EXPECT_EQ(call(987654), PXST_RESULT_UNKNOWN_HANDLE);
        EXPECT_EQ(call(closed), PXST_RESULT_UNKNOWN_HANDLE);
        EXPECT_EQ(call(unplugged), PXST_RESULT_NOT_CONNECTED);
    }
    // Nothing reached the server, and the dump never created its file.
    EXPECT_TRUE(server.fake().received().isEmpty());
    EXPECT_FALSE(QFile::exists(QString::fromLocal8Bit(dump)));

    EXPECT_EQ(PXST_HandleStatus(unplugged), 0);
    EXPECT_EQ(PXST_HandleStatus(closed), 0);
    EXPECT_EQ(PXST_HandleStatus(987654), 0);
    EXPECT_EQ(PXST_Close(unplugged), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(unplugged), PXST_RESULT_UNKNOWN_HANDLE);
    EXPECT_EQ(PXST_Close(closed), PXST_RESULT_UNKNOWN_HANDLE);
}

TEST(ApiHandleFrame, FailuresOfTheFrameLeaveOutParametersAloneExceptTheVerifyFailAddress)
{
    unsigned int status = 77;
    EXPECT_EQ(PXST_PellixStatus(987654, &status), PXST_RESULT_UNKNOWN_HANDLE);
    EXPECT_EQ(status, 77u);
    unsigned int fail = 77;
    EXPECT_EQ(PXST_VerifyLod(987654, "/nonexistent.lod", &fail), PXST_RESULT_UNKNOWN_HANDLE);
    EXPECT_EQ(fail, 0u);
    fail = 77;
    EXPECT_EQ(PXST_LoadLod(987654, "/nonexistent.lod", 1, &fail), PXST_RESULT_UNKNOWN_HANDLE);
    EXPECT_EQ(fail, 77u);
}

TEST(ApiOpen, OpenSocketConnectsWithoutPingAndOpenDefaultReusesTheLastServer)
{
    MemoryServer server;
    int first = 0;
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", server.port() + 0x10000, &first), PXST_RESULT_OK);
    EXPECT_GT(first, 0);
    EXPECT_EQ(PXST_HandleStatus(first), 1);
    int second = 0;
    ASSERT_EQ(PXST_OpenDefault(&second), PXST_RESULT_OK);
    EXPECT_EQ(second, first + 1);
    ASSERT_TRUE(server.fake().waitForConnections(2));
    EXPECT_EQ(PXST_Ping(second), PXST_RESULT_OK);
    // Only the explicit ping went out: opening sends nothing.
    EXPECT_EQ(framesOf(server.fake(), req::Ping).size(), 1);
    EXPECT_EQ(PXST_Close(first), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(second), PXST_RESULT_OK);
}

TEST(ApiOpen, OpenPingsTheServerItReachedAndHonoursTheForcedServer)
{
    MemoryServer server;
    qputenv("FORCED_PELLIX_HOST", "127.0.0.1");
    qputenv("FORCED_PELLIX_PORT", QByteArray::number(server.port()));
    int handle = 0;
    const unsigned int result = PXST_Open(140, -1, PXL_FLOW_NONE, &handle);
    qunsetenv("FORCED_PELLIX_HOST");
    qunsetenv("FORCED_PELLIX_PORT");
    ASSERT_EQ(result, PXST_RESULT_OK);
    EXPECT_GT(handle, 0);
    EXPECT_EQ(server.fake().frames(), QList<QByteArray>{pxproto::ping()});
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
}

TEST(ApiOpen, FailedOpensGiveNoConnectionAndMinusOne)
{
    int handle = 42;
    EXPECT_EQ(PXST_OpenSocket("127.0.0.1", deadPort(), &handle), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(handle, -1);
    handle = 42;
    EXPECT_EQ(PXST_OpenSocket("", 0, &handle), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(handle, -1);
}

TEST(ApiPassThrough, ValuesAreNarrowedToTheWidthOfTheOperation)
{
    MemoryServer server;
    const int h = openTo(server.port());
    EXPECT_EQ(PXST_Write8(h, 0x1000, 0x1FF), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Write16(h, 0x1002, 0x12345), PXST_RESULT_OK);
    EXPECT_EQ(PXST_WriteInternal(h, 0x20, 0x3AB), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Write32(h, 0x1004, 0xCAFEF00D), PXST_RESULT_OK);
    EXPECT_EQ(
        server.accesses(),
        (QList<Access>{
            write(0x1000, 1), write(0x1002, 2), {Access::Write, 0x84, 0x20, 1}, write(0x1004, 4)}));
    EXPECT_EQ(server.byteAt(0x1000), 0xFF);
    EXPECT_EQ(server.byteAt(0x1002), 0x45);
    EXPECT_EQ(server.byteAt(0x1003), 0x23);
    EXPECT_EQ(server.byteAt(0x20), 0xAB);

    unsigned int word = 0;
    EXPECT_EQ(PXST_Read32(h, 0x1004, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0xCAFEF00Du);

    EXPECT_EQ(PXST_SpecifyUSBIdPolicy(h, 0x11234, 0x5678), PXST_RESULT_OK);
    unsigned char payload[] = {0x01, 0x02};
    EXPECT_EQ(PXST_BypassSendPacket(h, 0x121, payload, 2), PXST_RESULT_OK);
    EXPECT_EQ(PXST_EnableEvents(h, 2), PXST_RESULT_OK);
    ASSERT_TRUE(server.fake().waitForFrames(8));
    EXPECT_EQ(framesOf(server.fake(), req::SetUsbId).value(0), pxproto::setUsbId(0x1234, 0x5678));
    EXPECT_EQ(framesOf(server.fake(), req::BypassSend).value(0),
              pxproto::bypassSend(0x21, payload, 2));
    EXPECT_EQ(framesOf(server.fake(), req::EnableEvents).value(0), pxproto::enableEvents(true));
    // Enabled: an empty queue now reports "no event" rather than "not enabled".
    EXPECT_EQ(PXST_PopEvent(h, &word), PXST_RESULT_NO_EVENT);
    PXST_Close(h);
}

TEST(ApiPassThrough, CommandsReturnSuccessAndForcedReconnectionKeepsTheHandle)
{
    MemoryServer server;
    int h = openTo(server.port());
    const int copy = h;
    EXPECT_EQ(PXST_KillPellix(h), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ComBreak(h), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ChangeFlowMode(h, PXL_FLOW_XONXOFF), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ForcePellixReconnection(&h), PXST_RESULT_OK);
    EXPECT_EQ(h, copy);
    const QList<QByteArray> frames = server.fake().frames();
    ASSERT_EQ(frames.size(), 4);
    EXPECT_EQ(frames[0], pxproto::kill());
    EXPECT_EQ(frames[1], pxproto::comBreak());
    EXPECT_EQ(frames[2], pxproto::setFlowMode(2));
    EXPECT_EQ(frames[3], pxproto::forceReconnect());
    PXST_Close(h);
}

TEST(ApiPellixStatus, NonZeroStatusByteReadsAsOne)
{
    MemoryServer server;
    const int h = openTo(server.port());
    for (unsigned char byte : {5, 1, 0xFF, 0}) {
        server.setStatusByte(byte);
        unsigned int status = 77;
        EXPECT_EQ(PXST_PellixStatus(h, &status), PXST_RESULT_OK);
        EXPECT_EQ(status, byte != 0 ? 1u : 0u) << int(byte);
    }
    PXST_Close(h);
}

TEST(ApiPellixStatus, TimeOutGivesZeroStatusAndTheTimeOutCode)
{
    MemoryServer server;
    server.setStatusSilent(true);
    const int h = openTo(server.port());
    unsigned int status = 77;
    EXPECT_EQ(PXST_PellixStatus(h, &status), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(status, 0u);
    PXST_Close(h);
}

TEST(ApiDefaultBaud, SetDefaultBaudAlwaysSucceeds)
{
    EXPECT_EQ(PXST_SetDefaultBaud(115200), PXST_RESULT_OK);
    EXPECT_EQ(PXST_SetDefaultBaud(-5), PXST_RESULT_OK);
    EXPECT_EQ(PXST_SetDefaultBaud(921600), PXST_RESULT_OK);
}
