// pxtool end to end: the real executable against the real pellix simulator. Each case owns a
// serial port number in 200..249 (TCP 7900..7949), so the cases run in parallel.

#include "SimulatorProcess.h"

#include <QByteArray>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <pellix/api/PXLLibraryApi.h>

namespace {

struct ToolRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

QString toolPath()
{
    return SimulatorProcess::binaryFolder() + QStringLiteral("/pxtool");
}

ToolRun runTool(const QStringList& arguments, int timeoutMs = 60000)
{
    QProcess process;
    process.start(toolPath(), arguments);
    ToolRun run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.err = QStringLiteral("pxtool did not finish in time");
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

// Prints what a failing expectation needs to see.
std::string describe(const ToolRun& run)
{
    return QStringLiteral("exit %1\nstdout:\n%2\nstderr:\n%3")
        .arg(run.exitCode)
        .arg(run.out, run.err)
        .toStdString();
}

// The text of a result code as the tool prints it: "error <code>: <text>".
QString errorText(unsigned int code)
{
    return QStringLiteral("error %1: %2").arg(code).arg(QString::fromLatin1(PXST_ResultText(code)));
}

// A started pxtool that keeps running (events, bypass-listen) while the test acts.
class RunningTool
{
public:
    explicit RunningTool(const QStringList& arguments) { process.start(toolPath(), arguments); }
    ~RunningTool()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
        }
    }
    // Waits until stderr holds `text`.
    bool waitForError(const QString& text, int timeoutMs = 15000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!err.contains(text)) {
            if (timer.elapsed() > timeoutMs || process.state() == QProcess::NotRunning)
                return err.contains(text);
            process.waitForReadyRead(100);
            err += QString::fromLocal8Bit(process.readAllStandardError());
        }
        return true;
    }
    ToolRun finish(int timeoutMs = 15000)
    {
        ToolRun run;
        if (process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit)
            run.exitCode = process.exitCode();
        run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
        run.err = err + QString::fromLocal8Bit(process.readAllStandardError());
        return run;
    }

private:
    QProcess process;
    QString err;
};

// A simulator for serial port `port`, listening on 7700 + port like a started server.
class ToolTest : public ::testing::Test
{
protected:
    void startSimulator(int port)
    {
        comPort = port;
        simulator = std::make_unique<SimulatorProcess>(SimulatorProcess::withArguments(
            {QStringLiteral("COM%1").arg(port), QStringLiteral("921600"), QStringLiteral("none")}));
        ASSERT_TRUE(simulator->isListening()) << "simulator for COM" << port << " did not start";
        ASSERT_EQ(simulator->port(), 7700 + port);
    }
    ToolRun tool(const QStringList& arguments)
    {
        return runTool(QStringList{QStringLiteral("--port"), QString::number(comPort)} + arguments);
    }
    QString file(const QString& name) const { return folder.filePath(name); }
    void writeFile(const QString& name, const QByteArray& content) const
    {
        QFile f(file(name));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(content);
    }
    QByteArray readFile(const QString& name) const
    {
        QFile f(file(name));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
    }

    int comPort = 0;
    std::unique_ptr<SimulatorProcess> simulator;
    QTemporaryDir folder;
};

// ---- without a server -------------------------------------------------------------------

struct UsageCase
{
    QStringList arguments;
    const char* message;
};

TEST(PXToolUsage, BadCommandLinesExitWithTwoBeforeConnecting)
{
    // Port 249 has no server; a usage error must be found before any connection attempt
    // (which would start one).
    const UsageCase cases[] = {
        {{}, "no command given"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"--port", "249", "ping", "--bogus"}, "unknown option '--bogus'"},
        {{"--port", "249", "read32"}, "missing argument: expected 'read32 ADDRESS'"},
        {{"--port", "249", "read32", "1", "2"}, "too many arguments"},
        {{"--port", "249", "read32", "xyz"}, "bad address 'xyz'"},
        {{"--port", "249", "read32", "0x100000000"}, "bad address '0x100000000'"},
        {{"--port", "249", "write8", "0x10", "0x100"}, "bad value '0x100'"},
        {{"--port", "249", "write16", "0x10", "-1"}, "unknown option '-1'"},
        {{"--port", "249", "read", "0x10", "4k"}, "bad size '4k'"},
        {{"--port", "249", "dump", "0", "0x40000000", "f"}, "bad word count"},
        {{"--port", "249", "flow-mode", "fast"}, "bad flow mode 'fast'"},
        {{"--port", "249", "usb-id", "0x10000", "1"}, "bad first USB id"},
        {{"--port", "249", "bypass-send", "0x100"}, "bad flow id '0x100'"},
        {{"--port", "249", "bypass-send", "1", "0g"}, "bad data '0g'"},
        {{"--port", "249", "bypass-listen", "1,x"}, "bad flow id 'x'"},
        {{"--port", "249", "events", "--wait", "1", "--count", "2"}, "--wait cannot be combined"},
        {{"--port", "249", "write", "0"}, "give either a FILE or --data HEX"},
        {{"--port", "249", "read-masked", "0"}, "give either --mask HEX or --mask-file FILE"},
        {{"--port", "249", "read-masked", "0", "--mask", "f"}, "bad --mask 'f'"},
        {{"ping"}, "give the target's port with --port N"},
        {{"--port", "x", "ping"}, "bad port number 'x'"},
        {{"--port", "1", "--host", "h", "ping"}, "--port cannot be combined"},
        {{"--host", "127.0.0.1", "ping"}, "--host needs --tcp-port"},
        {{"--port", "249", "--flow", "fast", "ping"}, "bad --flow 'fast'"},
        {{"help", "nothing"}, "unknown command 'nothing'"},
    };
    for (const UsageCase& c : cases) {
        const ToolRun run = runTool(c.arguments);
        EXPECT_EQ(run.exitCode, 2) << c.arguments.join(' ').toStdString() << "\n" << describe(run);
        EXPECT_TRUE(run.err.contains(QLatin1String(c.message)))
            << c.arguments.join(' ').toStdString() << "\n"
            << describe(run);
        EXPECT_TRUE(run.out.isEmpty()) << describe(run);
    }
    // Nothing was started on port 249 by any of them.
    const ToolRun probe = runTool({"--port", "249", "--no-start", "ping"});
    EXPECT_EQ(probe.exitCode, 1) << describe(probe);
}

TEST(PXToolUsage, HelpForTheToolAndEveryCommand)
{
    const ToolRun all = runTool({"--help"});
    ASSERT_EQ(all.exitCode, 0) << describe(all);
    EXPECT_TRUE(all.out.contains("Exit status:"));
    const QStringList commands = {
        "ping",          "status",      "read8",    "read16",  "read32",    "read-internal",
        "read",          "read-masked", "write8",   "write16", "write32",   "write-internal",
        "write",         "load",        "verify",   "dump",    "events",    "bypass-send",
        "bypass-listen", "kill",        "clean",    "flush",   "reconnect", "break",
        "flow-mode",     "usb-id",      "auto-baud"};
    for (const QString& command : commands) {
        EXPECT_TRUE(all.out.contains(QRegularExpression("\\n  " + command + " +\\w")))
            << command.toStdString();
        const ToolRun a = runTool({"help", command});
        const ToolRun b = runTool({command, "--help"});
        EXPECT_EQ(a.exitCode, 0) << describe(a);
        EXPECT_EQ(b.exitCode, 0) << describe(b);
        EXPECT_TRUE(a.out.startsWith("Usage: pxtool [options] " + command)) << describe(a);
        EXPECT_EQ(a.out, b.out);
    }
}

TEST(PXToolUsage, ConnectionFailureReportsResultElevenWithItsText)
{
    // A port that was free a moment ago: nothing listens there.
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
    const quint16 port = probe.serverPort();
    probe.close();

    const ToolRun run =
        runTool({"--host", "127.0.0.1", "--tcp-port", QString::number(port), "ping"});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(run.err.contains("pxtool: ping: " + errorText(11))) << describe(run);
    EXPECT_TRUE(run.err.contains(QStringLiteral("no server at 127.0.0.1:%1").arg(port)))
        << describe(run);

    // kill never starts a server, so with none on port 248 it fails the same way.
    const ToolRun kill = runTool({"--port", "248", "kill"});
    EXPECT_EQ(kill.exitCode, 1) << describe(kill);
    EXPECT_TRUE(kill.err.contains(errorText(11))) << describe(kill);
    EXPECT_TRUE(kill.err.contains("no server for COM248 at 127.0.0.1:7948")) << describe(kill);
}

// ---- against a simulator ------------------------------------------------------------------

TEST_F(ToolTest, OpenStartsTheServerBesideTheToolAndKillStopsIt)
{
    // No SimulatorProcess here: pxtool's PXST_Open starts "pellix COM201 ..." itself.
    ToolRun run = runTool({"--port", "201", "--no-start", "ping"});
    ASSERT_EQ(run.exitCode, 1) << "a server already runs on port 201\n" << describe(run);

    run = runTool({"--port", "201", "--baud", "115200", "--flow", "hardware", "ping"});
    const bool started = run.exitCode == 0;
    EXPECT_TRUE(started) << describe(run);
    EXPECT_TRUE(run.out.startsWith("reply in ")) << describe(run);
    if (started) {
        run = runTool({"--port", "201", "write32", "0x100", "0xCAFE"});
        EXPECT_EQ(run.exitCode, 0) << describe(run);
        run = runTool({"--port", "201", "read32", "0x100"});
        EXPECT_EQ(run.out, "0x0000CAFE\n") << describe(run);
    }
    run = runTool({"--port", "201", "kill"});
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(run.out.isEmpty() && run.err.isEmpty()) << describe(run);

    // The server exits after reading the request: wait until nothing answers any more.
    QElapsedTimer timer;
    timer.start();
    bool stopped = false;
    while (!stopped && timer.elapsed() < 10000)
        stopped = runTool({"--port", "201", "--no-start", "ping"}).exitCode == 1;
    EXPECT_TRUE(stopped) << "the started server still answers after kill";
}

struct ValueCase
{
    const char* write;
    const char* read;
    const char* address;
    const char* value;
    const char* printed;
};

TEST_F(ToolTest, SingleValuesRoundTrip)
{
    startSimulator(202);
    const ValueCase cases[] = {
        {"write8", "read8", "0x1001", "0xAB", "0xAB\n"},
        {"write8", "read8", "0x1002", "7", "0x07\n"},
        {"write16", "read16", "0x2002", "0xBEEF", "0xBEEF\n"},
        {"write16", "read16", "0x2005", "65535", "0xFFFF\n"}, // odd address: two byte reads
        {"write32", "read32", "0x3000", "0x12345678", "0x12345678\n"},
        {"write32", "read32", "0x3006", "4294967295", "0xFFFFFFFF\n"},
        {"write-internal", "read-internal", "0x10", "0x5A", "0x5A\n"},
    };
    for (const ValueCase& c : cases) {
        ToolRun run = tool({c.write, c.address, c.value});
        EXPECT_EQ(run.exitCode, 0) << c.write << "\n" << describe(run);
        EXPECT_TRUE(run.out.isEmpty()) << describe(run);
        run = tool({c.read, c.address});
        EXPECT_EQ(run.exitCode, 0) << c.read << "\n" << describe(run);
        EXPECT_EQ(run.out.toStdString(), c.printed) << c.read << " " << c.address;
    }
    // Bytes go least significant first: the 32-bit value at 0x3000 reads back byte by byte.
    ToolRun run = tool({"read8", "0x3000"});
    EXPECT_EQ(run.out, "0x78\n");
    run = tool({"read16", "0x3002"});
    EXPECT_EQ(run.out, "0x1234\n");
}

TEST_F(ToolTest, BlocksFromFilesHexAndMasks)
{
    startSimulator(203);
    // 100 KiB + 3 bytes: more than one 64 KiB piece and an odd tail.
    QByteArray data;
    for (int i = 0; i < 100 * 1024 + 3; ++i)
        data.append(char((i * 7 + i / 256) & 0xFF));
    writeFile("in.bin", data);
    ToolRun run = tool({"write", "0x40001", file("in.bin")});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(run.out.startsWith("write: 100.00 KiB in ")) << describe(run);
    run = tool({"read", "0x40001", QString::number(data.size()), "--out", file("out.bin")});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(readFile("out.bin") == data);
    EXPECT_TRUE(run.err.isEmpty()) << "no progress bar without a terminal\n" << describe(run);

    run = tool({"write", "0x1000", "--data", "41 42 43 00 ff"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    run = tool({"read", "0x1000", "5"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(run.out.toStdString(),
              "00001000  41 42 43 00 ff" + std::string(11 * 3 + 1, ' ') + "  |ABC..|\n");

    run = tool({"read-masked", "0x1000", "--mask", "ff 00 ff 0f ff"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(run.out.toStdString(),
              "00001000  41 -- 43 -- ff" + std::string(11 * 3 + 1, ' ') + "  |A.C..|\n");
    writeFile("mask.bin", QByteArray::fromHex("00ffff00ff"));
    run = tool({"read-masked", "0x1000", "--mask-file", file("mask.bin"), "--out", file("m.bin")});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(readFile("m.bin").toHex(), QByteArray("00424300ff"));

    // A file the tool reads itself: exit 3 with the system's reason, nothing connected.
    run = tool({"write", "0x1000", file("missing.bin")});
    EXPECT_EQ(run.exitCode, 3) << describe(run);
    EXPECT_TRUE(run.err.contains("cannot open '" + file("missing.bin") + "': No such file"))
        << describe(run);
    run = tool({"read", "0", "4", "--out", file("no/such/folder/x")});
    EXPECT_EQ(run.exitCode, 3) << describe(run);
}

TEST_F(ToolTest, LoadVerifyDumpAndTheirFailures)
{
    startSimulator(204);
    writeFile("good.lod", "# two packets\n@00001000\n11111111\n22222222\n33333333\n\n"
                          "@00002000\nABCDEF01\n@F0000000\n99999999\n");
    ToolRun run = tool({"load", file("good.lod"), "--verify"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(run.out.contains("load: " + file("good.lod") + ": 16 B written in "))
        << describe(run);
    EXPECT_TRUE(run.out.contains("verify: " + file("good.lod") + ": 16 B match in "))
        << describe(run);
    run = tool({"read32", "0x2000"});
    EXPECT_EQ(run.out, "0xABCDEF01\n");

    run = tool({"dump", "0x1000", "3", file("dump.lod")});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_EQ(readFile("dump.lod"), QByteArray("@00001000\n11111111\n22222222\n33333333\n"));
    run = tool({"--quiet", "dump", "0x1000", "2", file("dump.bin"), "--binary"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(run.out.isEmpty()) << describe(run);
    EXPECT_EQ(readFile("dump.bin").toHex(), QByteArray("1111111122222222"));

    // The target differs in the third word of the first packet.
    run = tool({"write32", "0x1008", "0"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    run = tool({"verify", file("good.lod")});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(
        run.err.contains("pxtool: verify: " + errorText(17) + " (first difference at 0x00001008)"))
        << describe(run);

    // A data line outside a packet: the packet before it is written all the same.
    writeFile("bad.lod", "@00005000\n00000005\n\n00000006\n");
    run = tool({"load", file("bad.lod")});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(run.err.contains("pxtool: load: " + errorText(15))) << describe(run);
    EXPECT_EQ(tool({"read32", "0x5000"}).out, "0x00000005\n");

    // LOD files are opened by the library: a missing one is result 16.
    run = tool({"load", file("missing.lod")});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(run.err.contains(errorText(16) + " (" + file("missing.lod") + ")"))
        << describe(run);
    run = tool({"dump", "0", "1", file("no/such/folder/x.lod")});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(run.err.contains(errorText(16))) << describe(run);

    // --progress draws the bar even into a pipe, ending at 100%.
    run = tool({"--progress", "load", file("good.lod")});
    EXPECT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(run.err.contains("load [") && run.err.contains("100%")) << describe(run);
}

TEST_F(ToolTest, EventsAreFollowedWithTimeStamps)
{
    startSimulator(205);
    RunningTool listener({"--port", "205", "events", "--count", "2", "--timeout", "30000"});
    ASSERT_TRUE(listener.waitForError("events enabled, waiting"));
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(tool({"write32", "0xFFFFFF00", "0x2A"}).exitCode, 0);
    EXPECT_EQ(tool({"write32", "0xFFFFFF00", "0x2B"}).exitCode, 0);
    const ToolRun run = listener.finish();
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    const QStringList lines = run.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << describe(run);
    const QRegularExpression line(
        "^(\\d+) \\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z (0x[0-9A-F]{8})$");
    const char* expected[] = {"0x0000002A", "0x0000002B"};
    for (int i = 0; i < 2; ++i) {
        const auto match = line.match(lines[i]);
        ASSERT_TRUE(match.hasMatch()) << lines[i].toStdString();
        EXPECT_EQ(match.captured(2).toStdString(), expected[i]);
        EXPECT_GE(match.captured(1).toLongLong(), before);
    }
}

TEST_F(ToolTest, EventWaitWithoutEventsFailsWithNineteen)
{
    startSimulator(206);
    const ToolRun run = tool({"events", "--wait", "300"});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(
        run.err.contains("pxtool: events: " + errorText(19) + " (0 of 1 received in 300 ms)"))
        << describe(run);
    EXPECT_TRUE(run.out.isEmpty()) << describe(run);
}

TEST_F(ToolTest, BypassSendEchoAndListen)
{
    startSimulator(207);
    ToolRun run = tool({"bypass-send", "0x21", "01 02 ff", "--echo", "10000"});
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(QRegularExpression("^\\d+ \\S+ flow 0x21 3 byte\\(s\\): 01 02 ff\\n$")
                    .match(run.out)
                    .hasMatch())
        << describe(run);

    // A listener on two flows sees the packet on one of them and nothing of a third flow.
    RunningTool listener(
        {"--port", "207", "bypass-listen", "0x22,0x23", "--count", "1", "--timeout", "30000"});
    ASSERT_TRUE(listener.waitForError("listening on 2 flow(s)"));
    EXPECT_EQ(tool({"bypass-send", "0x30", "aa"}).exitCode, 0);
    EXPECT_EQ(tool({"bypass-send", "0x23"}).exitCode, 0); // empty packet
    run = listener.finish();
    ASSERT_EQ(run.exitCode, 0) << describe(run);
    EXPECT_TRUE(
        QRegularExpression("^\\d+ \\S+ flow 0x23 0 byte\\(s\\): \\n$").match(run.out).hasMatch())
        << describe(run);

    run = tool({"bypass-listen", "0x40", "--wait", "200"});
    EXPECT_EQ(run.exitCode, 1) << describe(run);
    EXPECT_TRUE(run.err.contains(errorText(8))) << describe(run);
}

TEST_F(ToolTest, ServerControlCommands)
{
    startSimulator(208);
    const QStringList commands[] = {
        {"ping"},
        {"clean"},
        {"flush"},
        {"break"},
        {"auto-baud"},
        {"flow-mode", "xonxoff"},
        {"usb-id", "0x1234", "0xABCD"},
        {"reconnect"},
    };
    for (const QStringList& command : commands) {
        const ToolRun run = tool(command);
        EXPECT_EQ(run.exitCode, 0) << command.join(' ').toStdString() << "\n" << describe(run);
        EXPECT_TRUE(run.err.isEmpty()) << describe(run);
    }
    const ToolRun status = tool({"status"});
    EXPECT_EQ(status.exitCode, 0) << describe(status);
    EXPECT_TRUE(status.out == "0\n" || status.out == "1\n") << describe(status);
}

} // namespace
