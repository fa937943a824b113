// The serial back end end to end: PXConnection -> pellix with the device LINK -> pseudo-terminal
// -> pellix-target, each a real program. Every case has a target and a server of its own. The
// load, verification and dump of a firmware image through pxtool over such a link is the main
// job's (scripts/main-job.sh); the server's note when it serves the simulation instead is
// checked by tst_simulator.

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include <pellix/connection/PXConnection.h>
#include <pellix/protocol/PXFrames_p.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Results = std::vector<unsigned int>;

class Serial : public ::testing::TestWithParam<const char*>
{
protected:
    // The server learns its link from --device, or with flow "none" (and only the three
    // positional arguments, as PXST_Open starts one) from PELLIX_DEVICE_COM<N>.
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        startTarget();
        const bool mapped = flow() == "none";
        qputenv("PELLIX_DEVICE_COM61", QFile::encodeName(link()));
        server = std::make_unique<SimulatorProcess>(SimulatorProcess::withArguments(
            QStringList{mapped ? "COM61" : "COM0", "921600", flow(), "--port", "0"} +
            (mapped ? QStringList() : QStringList{"--device", link()})));
        qunsetenv("PELLIX_DEVICE_COM61");
        ASSERT_TRUE(server->isListening());
        ASSERT_TRUE(connection.open("127.0.0.1", server->port()));
        ASSERT_TRUE(waitUntil([this] { return status() == 1; }));
        EXPECT_TRUE(server->errorOutput().contains("serial device"));
        EXPECT_FALSE(server->errorOutput().contains("simulated"));
    }
    void TearDown() override { stopTarget(); }
    // pellix-target on a pseudo-terminal that the path link() names.
    void startTarget(const QStringList& extra = {})
    {
        stopTarget();
        target.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        target.start(SimulatorProcess::binaryFolder() + "/pellix-target",
                     QStringList{"--pty", link(), "--flow", flow()} + extra);
        ASSERT_TRUE(target.waitForReadyRead(10000) &&
                    target.readLine().startsWith("pellix-target: serial device /dev/"));
    }
    void stopTarget()
    {
        target.kill();
        target.waitForFinished(5000);
    }

    QString link() const { return dir.filePath("link"); }
    QString flow() const { return QString::fromLatin1(GetParam()); }
    int status()
    {
        unsigned char value = 0xEE;
        return connection.getStatus(&value) == 0 ? value : -1;
    }

    QTemporaryDir dir;
    QProcess target;
    std::unique_ptr<SimulatorProcess> server;
    PXConnection connection;
};

// Every width, the internal space and 1 MiB each way, read back across the link; a second
// client on the same link meanwhile gets its own answers; events; bypass packets with the
// bytes that XON/XOFF escapes, and the start byte; a baud change, a break, a reconnection,
// auto-bauding and a flush leave it working.
TEST_P(Serial, MemoryEventsAndBypassCrossTheLink)
{
    unsigned int word = 0;
    unsigned short half = 0;
    unsigned char byte = 0, internal = 0;
    // The internal space is apart from memory both ways: the word keeps its top byte 0x11
    // after the internal write, the internal byte stays after the memory write.
    EXPECT_EQ((Results{connection.write32(0x1001, 0x11135CAD), connection.writei8(0x1004, 0xAD),
                       connection.read32(0x1001, &word), connection.read16(0x1002, &half),
                       connection.write8(0x1004, 0x5C), connection.read8(0x1004, &byte),
                       connection.readi8(0x1004, &internal)}),
              Results(7, 0u));
    EXPECT_EQ(std::make_tuple(word, half, byte, internal),
              std::make_tuple(0x11135CADu, ushort(0x135C), uchar(0x5C), uchar(0xAD)));

    std::vector<unsigned int> image(256 * 1024), back(image.size());
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = unsigned(i * 0x01000193u) ^ 0x11135CADu;
    ASSERT_EQ(connection.writeBlock(0x100002, image.data(), int(image.size() * 4)), 0u);
    PXConnection other;
    ASSERT_TRUE(other.open("127.0.0.1", server->port()));
    unsigned int otherMismatches = 0;
    std::thread second([&] {
        for (unsigned int i = 0, value = 0; i < 200; ++i)
            otherMismatches += other.write32(0x8000 + 4 * i, ~i) != 0 ||
                               other.read32(0x8000 + 4 * i, &value) != 0 || value != ~i;
    });
    EXPECT_EQ(connection.readBlock(0x100002, reinterpret_cast<unsigned char*>(back.data()),
                                   int(back.size() * 4)),
              0u);
    second.join();
    EXPECT_TRUE(back == image);
    EXPECT_EQ(otherMismatches, 0u);

    // 0xFFFFFF00: the default event register.
    ASSERT_EQ(connection.enableEvents(true), 0u);
    EXPECT_EQ(connection.write32(0xFFFFFF00u, 0x1311AD5C), 0u);
    EXPECT_EQ(connection.waitEvent(&word, 5000), 0u);
    EXPECT_EQ(word, 0x1311AD5Cu);

    unsigned char flows[] = {0x21}, flow = 0, packet[64];
    unsigned char payload[] = {0x11, 0x13, 0x5C, 0xAD, 0x00, 0xFF, 0x11};
    int length = 0;
    ASSERT_EQ(connection.setBypassFlowIds(flows, 1), 0u);
    EXPECT_EQ(connection.sendBypassPacket(0x21, payload, sizeof payload), 0u);
    ASSERT_EQ(connection.waitBypassPacket(&flow, packet, sizeof packet, &length, 5000), 0u);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(packet), length),
              pxproto::debugPacket(0x21, payload, sizeof payload));

    EXPECT_EQ((Results{connection.setBaudRate(115200), connection.comBreak(),
                       connection.forcePellixReconnect(), connection.autoBauding(),
                       connection.flushPellixFifos()}),
              Results(5, 0u));
    EXPECT_TRUE(waitUntil([this] { return status() == 1; }));
    EXPECT_EQ(connection.read32(0x100002, &word), 0u);
    EXPECT_EQ(word, image[0]);
}

// The target goes mid-transfer: the read gets 13 within its time-out and the status turns 0.
// A target started again at the same path serves again, without restarting the server.
TEST_P(Serial, TargetKilledMidTransferComesBack)
{
    startTarget({"--baud", "115200"});
    ASSERT_TRUE(waitUntil([this] { return status() == 1; }, 10000));
    std::vector<unsigned char> buffer(64 * 1024);
    // Killed by pid: the QProcess belongs to this thread. The link goes with the target, as a
    // device node goes when its adapter is unplugged, so that no other test's terminal that
    // reuses the number can be taken for it.
    const qint64 pid = target.processId();
    std::thread killer([this, pid] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        ::kill(pid_t(pid), SIGKILL);
        QFile::remove(link());
    });
    EXPECT_EQ(connection.readBlock(0, buffer.data(), int(buffer.size())), 13u);
    killer.join();
    stopTarget();
    EXPECT_EQ(status(), 0);
    unsigned int word = 0;
    EXPECT_EQ(connection.read32(0x40, &word), 13u) << "no device: no answer, and no wedge";

    startTarget();
    ASSERT_TRUE(waitUntil([this] { return status() == 1; }, 10000))
        << qPrintable(server->errorOutput());
    EXPECT_EQ(connection.write32(0x40, 0xA5A5A5A5), 0u);
    EXPECT_EQ(connection.read32(0x40, &word), 0u);
    EXPECT_EQ(word, 0xA5A5A5A5u);
}

INSTANTIATE_TEST_SUITE_P(Flow, Serial, ::testing::Values("none", "xonxoff"));

} // namespace
