// The serial back end end to end: PXConnection -> pellix --device LINK -> pseudo-terminal ->
// pellix-target, each a real program. Every case has a target and a server of its own.

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include <pellix/connection/PXConnection.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr unsigned int EventRegister = 0xFFFFFF00u;

// pellix-target on a pseudo-terminal that LINK names, started and stopped with the object.
class LinkTarget
{
public:
    LinkTarget(const QString& link, const QStringList& extra)
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(SimulatorProcess::binaryFolder() + "/pellix-target",
                      QStringList{"--pty", link} + extra);
        started = process.waitForReadyRead(10000) &&
                  process.readLine().startsWith("pellix-target: serial device /dev/");
    }
    ~LinkTarget() { kill(); }
    void kill()
    {
        process.kill();
        process.waitForFinished(5000);
    }

    QProcess process;
    bool started = false;
};

class Serial : public ::testing::TestWithParam<const char*>
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        target = std::make_unique<LinkTarget>(link(), QStringList{"--flow", flow()});
        ASSERT_TRUE(target->started);
        server = std::make_unique<SimulatorProcess>(SimulatorProcess::withArguments(
            {"COM0", "921600", flow(), "--port", "0", "--device", link()}));
        ASSERT_TRUE(server->isListening());
        ASSERT_TRUE(connection.open("127.0.0.1", server->port()));
        ASSERT_TRUE(waitUntil([this] { return status() == 1; }));
    }

    QString link() const { return dir.filePath("link"); }
    QString flow() const { return QString::fromLatin1(GetParam()); }
    int status()
    {
        unsigned char value = 0xEE;
        return connection.getStatus(&value) == 0 ? value : -1;
    }

    QTemporaryDir dir;
    std::unique_ptr<LinkTarget> target;
    std::unique_ptr<SimulatorProcess> server;
    PXConnection connection;
};

// Every width, the internal space and 1 MiB each way, read back across the link; a second
// client on the same link meanwhile gets its own answers; events; bypass packets with the
// bytes that XON/XOFF escapes, and the start byte; a baud change, a break, a reconnection,
// auto-bauding and a flush leave it working.
TEST_P(Serial, MemoryEventsAndBypassCrossTheLink)
{
    EXPECT_EQ(connection.write32(0x1001, 0x11135CAD), 0u);
    unsigned int word = 0;
    unsigned short half = 0;
    unsigned char byte = 0;
    EXPECT_EQ(connection.read32(0x1001, &word), 0u);
    EXPECT_EQ(word, 0x11135CADu);
    EXPECT_EQ(connection.read16(0x1002, &half), 0u);
    EXPECT_EQ(half, 0x135Cu);
    EXPECT_EQ(connection.write8(0x1004, 0x5C), 0u);
    EXPECT_EQ(connection.read8(0x1004, &byte), 0u);
    EXPECT_EQ(byte, 0x5C);
    EXPECT_EQ(connection.writei8(0x1004, 0xAD), 0u);
    EXPECT_EQ(connection.readi8(0x1004, &byte), 0u);
    EXPECT_EQ(byte, 0xAD);
    EXPECT_EQ(connection.read8(0x1004, &byte), 0u);
    EXPECT_EQ(byte, 0x5C) << "the internal space is apart from memory";

    std::vector<unsigned int> image(256 * 1024);
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = unsigned(i * 0x01000193u) ^ 0x11135CADu;
    ASSERT_EQ(connection.writeBlock(0x100002, image.data(), int(image.size() * 4)), 0u);

    PXConnection other;
    ASSERT_TRUE(other.open("127.0.0.1", server->port()));
    unsigned int otherMismatches = 0;
    std::thread second([&] {
        for (unsigned int i = 0; i < 200; ++i) {
            unsigned int value = 0;
            otherMismatches += other.write32(0x8000 + 4 * i, ~i) != 0 ||
                               other.read32(0x8000 + 4 * i, &value) != 0 || value != ~i;
        }
    });
    std::vector<unsigned int> back(image.size());
    EXPECT_EQ(connection.readBlock(0x100002, reinterpret_cast<unsigned char*>(back.data()),
                                   int(back.size() * 4)),
              0u);
    second.join();
    EXPECT_TRUE(back == image);
    EXPECT_EQ(otherMismatches, 0u);

    ASSERT_EQ(connection.enableEvents(true), 0u);
    EXPECT_EQ(connection.write32(EventRegister, 0x1311AD5C), 0u);
    unsigned int event = 0;
    EXPECT_EQ(connection.waitEvent(&event, 5000), 0u);
    EXPECT_EQ(event, 0x1311AD5Cu);

    unsigned char flows[] = {0x21};
    ASSERT_EQ(connection.setBypassFlowIds(flows, 1), 0u);
    unsigned char payload[] = {0x11, 0x13, 0x5C, 0xAD, 0x00, 0xFF, 0x11};
    EXPECT_EQ(connection.sendBypassPacket(0x21, payload, sizeof payload), 0u);
    unsigned char flow = 0;
    unsigned char packet[64];
    int length = 0;
    ASSERT_EQ(connection.waitBypassPacket(&flow, packet, sizeof packet, &length, 5000), 0u);
    ASSERT_EQ(length, int(sizeof payload) + 5);
    EXPECT_EQ(flow, 0x21);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(packet) + 4, sizeof payload),
              QByteArray(reinterpret_cast<char*>(payload), sizeof payload));

    EXPECT_EQ(connection.setBaudRate(115200), 0u);
    EXPECT_EQ(connection.comBreak(), 0u);
    EXPECT_EQ(connection.forcePellixReconnect(), 0u);
    EXPECT_EQ(connection.autoBauding(), 0u);
    EXPECT_EQ(connection.flushPellixFifos(), 0u);
    EXPECT_TRUE(waitUntil([this] { return status() == 1; }));
    EXPECT_EQ(connection.read32(0x100002, &word), 0u);
    EXPECT_EQ(word, image[0]);
}

INSTANTIATE_TEST_SUITE_P(Flow, Serial, ::testing::Values("none", "xonxoff"));

class SerialLoss : public Serial
{};

// The target goes mid-transfer: the read gets 13 within its time-out and the status turns 0.
// A target started again at the same path serves again, without restarting the server.
TEST_P(SerialLoss, TargetKilledMidTransferComesBack)
{
    target =
        std::make_unique<LinkTarget>(link(), QStringList{"--flow", flow(), "--baud", "115200"});
    ASSERT_TRUE(target->started);
    ASSERT_TRUE(waitUntil([this] { return status() == 1; }, 10000));
    std::vector<unsigned char> buffer(64 * 1024);
    // Killed by pid: the QProcess belongs to this thread. The link goes with the target, as a
    // device node goes when its adapter is unplugged, so that no other test's terminal that
    // reuses the number can be taken for it.
    const qint64 pid = target->process.processId();
    std::thread killer([this, pid] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        ::kill(pid_t(pid), SIGKILL);
        QFile::remove(link());
    });
    EXPECT_EQ(connection.readBlock(0, buffer.data(), int(buffer.size())), 13u);
    killer.join();
    target->kill();
    EXPECT_EQ(status(), 0);
    unsigned int word = 0;
    EXPECT_EQ(connection.read32(0x40, &word), 13u) << "no device: no answer, and no wedge";

    target = std::make_unique<LinkTarget>(link(), QStringList{"--flow", flow()});
    ASSERT_TRUE(target->started);
    ASSERT_TRUE(waitUntil([this] { return status() == 1; }, 10000))
        << qPrintable(server->errorOutput());
    EXPECT_EQ(connection.write32(0x40, 0xA5A5A5A5), 0u);
    EXPECT_EQ(connection.read32(0x40, &word), 0u);
    EXPECT_EQ(word, 0xA5A5A5A5u);
}

INSTANTIATE_TEST_SUITE_P(Flow, SerialLoss, ::testing::Values("none"));

// LOD load with verification and a dump through pxtool, over the link.
TEST_P(Serial, PxtoolLoadsVerifiesAndDumpsFirmware)
{
    QFile lod(dir.filePath("image.lod"));
    ASSERT_TRUE(lod.open(QIODevice::WriteOnly));
    lod.write("@00200000\n");
    for (int i = 0; i < 2048; ++i)
        lod.write(QByteArray::number(0x5C11AD13u ^ unsigned(i * 2654435761u), 16)
                      .rightJustified(8, '0')
                      .toUpper() +
                  "\n");
    lod.close();
    const QStringList common{"--tcp-port", QString::number(server->port()), "--quiet"};
    auto run = [&](const QStringList& arguments) {
        QProcess tool;
        tool.start(SimulatorProcess::binaryFolder() + "/pxtool", common + arguments);
        return tool.waitForFinished(60000) ? tool.exitCode() : -1;
    };
    EXPECT_EQ(run({"load", lod.fileName(), "--verify"}), 0);
    EXPECT_EQ(run({"verify", lod.fileName()}), 0);
    EXPECT_EQ(run({"dump", "0x200000", "2048", dir.filePath("dump.lod")}), 0);
    QFile dump(dir.filePath("dump.lod"));
    ASSERT_TRUE(dump.open(QIODevice::ReadOnly) && lod.open(QIODevice::ReadOnly));
    EXPECT_EQ(dump.readAll(), lod.readAll());
}

// A server started with the three positional arguments only (as PXST_Open starts one) finds
// the device of its port in PELLIX_DEVICE_COM<N>; with none configured it serves the simulated
// chip and says so.
TEST(SerialDevice, PortNumberMapsToTheDeviceOrToTheSimulation)
{
    QTemporaryDir dir;
    LinkTarget target(dir.filePath("link"), {});
    ASSERT_TRUE(target.started);
    qputenv("PELLIX_DEVICE_COM61", QFile::encodeName(dir.filePath("link")));
    SimulatorProcess mapped =
        SimulatorProcess::withArguments({"COM61", "921600", "none", "--port", "0"});
    qunsetenv("PELLIX_DEVICE_COM61");
    ASSERT_TRUE(mapped.isListening());
    PXConnection connection;
    ASSERT_TRUE(connection.open("127.0.0.1", mapped.port()));
    unsigned char status = 0;
    EXPECT_TRUE(waitUntil([&] { return connection.getStatus(&status) == 0 && status == 1; }));
    EXPECT_TRUE(mapped.errorOutput().contains("serial device"));
    EXPECT_FALSE(mapped.errorOutput().contains("simulated"));

    SimulatorProcess simulated =
        SimulatorProcess::withArguments({"COM62", "921600", "none", "--port", "0"});
    ASSERT_TRUE(simulated.isListening());
    EXPECT_TRUE(simulated.errorOutput().contains("no serial device configured for COM62"));
}

} // namespace
