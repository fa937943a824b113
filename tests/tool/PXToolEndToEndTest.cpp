// pxtool end to end: the real executable against the real pellix simulator. Each case owns a
// serial port number in 200..249 (TCP 7900..7949), so the cases run in parallel.

#include "RefusedPort.h"
#include "SimulatorProcess.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <pellix/api/PXLLibraryApi.h>

#include <memory>

namespace {

struct ToolRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

// Prints what a failing expectation needs to see.
std::ostream& operator<<(std::ostream& stream, const ToolRun& run)
{
    return stream << "exit " << run.exitCode << "\nstdout:\n"
                  << run.out.toStdString() << "\nstderr:\n"
                  << run.err.toStdString();
}

// A started pxtool; finish() waits for it, waitForError() watches it while it runs. The
// QProcess kills it if it still runs at the end.
class Tool
{
public:
    explicit Tool(const QStringList& arguments)
    {
        process.start(SimulatorProcess::binaryFolder() + "/pxtool", arguments);
    }
    bool waitForError(const QString& text)
    {
        const QDeadlineTimer deadline(15000);
        while (!err.contains(text) && !deadline.hasExpired() &&
               process.state() != QProcess::NotRunning) {
            process.waitForReadyRead(100);
            err += QString::fromLocal8Bit(process.readAllStandardError());
        }
        return err.contains(text);
    }
    ToolRun finish()
    {
        ToolRun run;
        if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit)
            run.exitCode = process.exitCode();
        run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
        run.err = err + QString::fromLocal8Bit(process.readAllStandardError());
        return run;
    }

private:
    QProcess process;
    QString err;
};

ToolRun runTool(const QStringList& arguments)
{
    return Tool(arguments).finish();
}

// The text of a result code as the tool prints it: "error <code>: <text>".
QString errorText(unsigned int code)
{
    return QStringLiteral("error %1: %2").arg(code).arg(QString::fromLatin1(PXST_ResultText(code)));
}

// Runs pxtool expecting `exitCode`, exactly `out` on stdout (null: not checked) and `err`
// somewhere in stderr.
ToolRun expectRun(const QStringList& arguments, int exitCode, const char* out = "",
                  const QString& err = {})
{
    const ToolRun run = runTool(arguments);
    EXPECT_TRUE(run.exitCode == exitCode && (out == nullptr || run.out.toStdString() == out) &&
                run.err.contains(err))
        << arguments.join(' ').toStdString() << "\n"
        << run;
    return run;
}

// A simulator for serial port `port`, listening on 7700 + port like a started server.
class ToolTest : public ::testing::Test
{
protected:
    void startSimulator(int port)
    {
        comPort = port;
        simulator = std::make_unique<SimulatorProcess>(
            SimulatorProcess::withArguments({"COM" + QString::number(port), "921600", "none"}));
        ASSERT_EQ(simulator->port(), 7700 + port);
    }
    ToolRun expect(const QStringList& arguments, int exitCode, const char* out = "",
                   const QString& err = {})
    {
        return expectRun(QStringList{"--port", QString::number(comPort)} + arguments, exitCode, out,
                         err);
    }
    QString file(const QString& name) const { return folder.filePath(name); }
    // Writes `content` to the file `name` of the test's folder, or reads it back.
    QString writeFile(const QString& name, const QByteArray& content) const
    {
        QFile f(file(name));
        EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(content) == content.size());
        return f.fileName();
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

TEST(PXToolUsage, BadCommandLinesExitWithTwoBeforeConnecting)
{
    // Port 249 has no server; a usage error must be found before any connection attempt
    // (which would start one).
    const QStringList p{"--port", "249"};
    const std::pair<QStringList, const char*> cases[] = {
        // clang-format off
        {{}, "no command given"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {p + QStringList{"ping", "--bogus"}, "unknown option '--bogus'"},
        {p + QStringList{"read32"}, "missing argument: expected 'read32 ADDRESS'"},
        {p + QStringList{"read32", "1", "2"}, "too many arguments"},
        {p + QStringList{"read32", "xyz"}, "bad address 'xyz'"},
        {p + QStringList{"write8", "0x10", "0x100"}, "bad value '0x100'"},
        {p + QStringList{"write16", "0x10", "-1"}, "unknown option '-1'"},
        {p + QStringList{"read", "0x10", "4k"}, "bad size '4k'"},
        {p + QStringList{"dump", "0", "0x40000000", "f"}, "bad word count"},
        {p + QStringList{"flow-mode", "fast"}, "bad flow mode 'fast'"},
        {p + QStringList{"usb-id", "0x10000", "1"}, "bad first USB id"},
        {p + QStringList{"bypass-send", "0x100"}, "bad flow id '0x100'"},
        {p + QStringList{"bypass-send", "1", "0g"}, "bad data '0g'"},
        {p + QStringList{"events", "--wait", "1", "--count", "2"}, "--wait cannot be combined"},
        {p + QStringList{"write", "0"}, "give either a FILE or --data HEX"},
        {p + QStringList{"read-masked", "0"}, "give either --mask HEX or --mask-file FILE"},
        {p + QStringList{"read-masked", "0", "--mask", "f"}, "bad --mask 'f'"},
        {p + QStringList{"--out", "f", "read", "0", "4"}, "command options go after the command"},
        {p + QStringList{"read", "0", "4", "--out"}, "needs a value"},
        {p + QStringList{"ping", "--quiet=1"}, "takes no value"},
        {p + QStringList{"ping", "--port", "2"}, "given twice"},
        {p + QStringList{"--flow", "fast", "ping"}, "bad --flow 'fast'"},
        {{"ping"}, "give the target's port with --port N"},
        {{"--port", "x", "ping"}, "bad port number 'x'"},
        {{"--port", "1", "--host", "h", "ping"}, "--port cannot be combined"},
        {{"--host", "127.0.0.1", "ping"}, "--host needs --tcp-port"},
        // clang-format on
    };
    for (const auto& [arguments, message] : cases)
        expectRun(arguments, 2, "", message);
    // Nothing was started on port 249 by any of them.
    EXPECT_EQ(runTool(p + QStringList{"--no-start", "ping"}).exitCode, 1);
}

TEST(PXToolUsage, HelpForTheToolAndEveryCommand)
{
    const QString all = expectRun({"--help"}, 0, nullptr, "").out;
    EXPECT_TRUE(all.contains("Exit status:"));
    for (const QString& command :
         QStringLiteral("ping status read8 read16 read32 read-internal read read-masked write8 "
                        "write16 write32 write-internal write load verify dump events bypass-send "
                        "bypass-listen kill clean flush reconnect break flow-mode usb-id auto-baud")
             .split(' ')) {
        EXPECT_TRUE(all.contains(QRegularExpression("\\n  " + command + " +\\w")))
            << command.toStdString();
        const ToolRun a = expectRun({"help", command}, 0, nullptr);
        EXPECT_TRUE(a.out.startsWith("Usage: pxtool [options] " + command)) << a;
        EXPECT_EQ(a.out, runTool({command, "--help"}).out);
    }
}

TEST(PXToolUsage, ConnectionFailureReportsResultElevenWithItsText)
{
    const QString port = QString::number(refusedPort());
    expectRun({"--host", "127.0.0.1", "--tcp-port", port, "ping"}, 1, "",
              "pxtool: ping: " + errorText(11) + " (no server at 127.0.0.1:" + port);
    // kill never starts a server, so with none on port 248 it fails the same way.
    expectRun({"--port", "248", "kill"}, 1, "",
              errorText(11) + " (no server for COM248 at 127.0.0.1:7948");
}

// ---- against a simulator ------------------------------------------------------------------

TEST_F(ToolTest, OpenStartsTheServerBesideTheToolAndKillStopsIt)
{
    // No simulator started here: pxtool's PXST_Open starts "pellix COM201 ..." itself.
    comPort = 201;
    ASSERT_EQ(runTool({"--port", "201", "--no-start", "ping"}).exitCode, 1)
        << "a server already runs on port 201";
    const ToolRun run = expect({"--baud", "115200", "--flow", "hardware", "ping"}, 0, nullptr);
    EXPECT_TRUE(run.out.startsWith("reply in ")) << run;
    expect({"write32", "0x100", "0xCAFE"}, 0);
    expect({"read32", "0x100"}, 0, "0x0000CAFE\n");
    EXPECT_TRUE(expect({"kill"}, 0).err.isEmpty());
    // The server exits after reading the request: wait until nothing answers any more.
    const QDeadlineTimer deadline(10000);
    bool stopped = false;
    while (!stopped && !deadline.hasExpired())
        stopped = runTool({"--port", "201", "--no-start", "ping"}).exitCode == 1;
    EXPECT_TRUE(stopped) << "the started server still answers after kill";
}

TEST_F(ToolTest, SingleValuesAndServerControl)
{
    startSimulator(202);
    const char* const cases[][5] = {
        // write command, read command, address, value, printed
        {"write8", "read8", "0x1001", "0xAB", "0xAB\n"},
        {"write8", "read8", "0x1002", "7", "0x07\n"},
        {"write16", "read16", "0x2005", "65535", "0xFFFF\n"}, // odd address: two byte reads
        {"write32", "read32", "0x3000", "0x12345678", "0x12345678\n"},
        {"write32", "read32", "0x3006", "4294967295", "0xFFFFFFFF\n"},
        {"write-internal", "read-internal", "0x10", "0x5A", "0x5A\n"},
    };
    for (const auto& c : cases) {
        expect({c[0], c[2], c[3]}, 0);
        expect({c[1], c[2]}, 0, c[4]);
    }
    // Bytes go least significant first.
    expect({"read8", "0x3000"}, 0, "0x78\n");
    expect({"read16", "0x3002"}, 0, "0x1234\n");
    for (const char* command : {"ping", "clean", "flush", "break", "auto-baud", "flow-mode xonxoff",
                                "usb-id 0x1234 0xABCD", "reconnect"})
        EXPECT_TRUE(expect(QString(command).split(' '), 0, nullptr).err.isEmpty()) << command;
    expect({"status"}, 0, "1\n");
}

TEST_F(ToolTest, BlocksFromFilesHexAndMasks)
{
    startSimulator(203);
    // 100 KiB + 3 bytes: more than one 64 KiB piece and an odd tail.
    QByteArray data(100 * 1024 + 3, Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((i * 7 + i / 256) & 0xFF);
    EXPECT_TRUE(expect({"write", "0x40001", writeFile("in.bin", data)}, 0, nullptr)
                    .out.startsWith("write: 100.00 KiB in "));
    const ToolRun run = expect({"read", "0x40001", "102403", "--out", file("out.bin")}, 0, nullptr);
    EXPECT_TRUE(readFile("out.bin") == data);
    EXPECT_TRUE(run.err.isEmpty()) << "no progress bar without a terminal\n" << run;

    const std::string pad(11 * 3 + 1, ' ');
    expect({"write", "0x1000", "--data", "41 42 43 00 ff"}, 0);
    expect({"read", "0x1000", "5"}, 0, ("00001000  41 42 43 00 ff" + pad + "  |ABC..|\n").c_str());
    expect({"read-masked", "0x1000", "--mask", "ff 00 ff 0f ff"}, 0,
           ("00001000  41 -- 43 -- ff" + pad + "  |A.C..|\n").c_str());
    const QString mask = writeFile("mask.bin", QByteArray::fromHex("00ffff00ff"));
    expect({"read-masked", "0x1000", "--mask-file", mask, "--out", file("m.bin")}, 0);
    EXPECT_EQ(readFile("m.bin").toHex(), QByteArray("00424300ff"));

    // A file the tool reads or writes itself: exit 3 with the system's reason.
    expect({"write", "0x1000", file("missing.bin")}, 3, "",
           "cannot open '" + file("missing.bin") + "': No such file");
    expect({"read", "0", "4", "--out", file("no/such/folder/x")}, 3);
}

TEST_F(ToolTest, LoadVerifyDumpAndTheirFailures)
{
    startSimulator(204);
    const QString good =
        writeFile("good.lod", "# two packets\n@00001000\n11111111\n22222222\n33333333\n\n"
                              "@00002000\nABCDEF01\n@F0000000\n99999999\n");
    ToolRun run = expect({"load", good, "--verify"}, 0, nullptr);
    EXPECT_TRUE(run.out.contains("load: " + good + ": 16 B written in ") &&
                run.out.contains("verify: " + good + ": 16 B match in "))
        << run;
    expect({"read32", "0x2000"}, 0, "0xABCDEF01\n");
    expect({"dump", "0x1000", "3", file("dump.lod")}, 0, nullptr);
    EXPECT_EQ(readFile("dump.lod"), QByteArray("@00001000\n11111111\n22222222\n33333333\n"));
    expect({"--quiet", "dump", "0x1000", "2", file("dump.bin"), "--binary"}, 0);
    EXPECT_EQ(readFile("dump.bin").toHex(), QByteArray("1111111122222222"));
    // --progress draws the bar even into a pipe, ending at 100%.
    run = expect({"--progress", "load", good}, 0, nullptr);
    EXPECT_TRUE(run.err.contains("load [") && run.err.contains("100%")) << run;

    // Failures: a mismatch with its address, a bad LOD file (the packet before the stray
    // line is written all the same), LOD files the library cannot open (16).
    expect({"write32", "0x1008", "0"}, 0);
    const QString bad = writeFile("bad.lod", "@00005000\n00000005\n\n00000006\n");
    const std::pair<QStringList, QString> failures[] = {
        {{"verify", good},
         "pxtool: verify: " + errorText(17) + " (first difference at 0x00001008)"},
        {{"load", bad}, "pxtool: load: " + errorText(15)},
        {{"load", file("missing.lod")}, errorText(16) + " (" + file("missing.lod") + ")"},
        {{"dump", "0", "1", file("no/such/folder/x.lod")}, errorText(16)},
    };
    for (const auto& [arguments, message] : failures)
        expect(arguments, 1, nullptr, message);
    expect({"read32", "0x5000"}, 0, "0x00000005\n");
}

TEST_F(ToolTest, EventsAndBypassPacketsAreFollowedAndWaitsTimeOut)
{
    startSimulator(205);
    Tool listener({"--port", "205", "events", "--count", "2", "--timeout", "30000"});
    ASSERT_TRUE(listener.waitForError("events enabled, waiting"));
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    expect({"write32", "0xFFFFFF00", "0x2A"}, 0);
    expect({"write32", "0xFFFFFF00", "0x2B"}, 0);
    const ToolRun run = listener.finish();
    const QString stamp = R"((\d+) \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
    const auto match =
        QRegularExpression("^" + stamp + "0x0000002A\n" + stamp + "0x0000002B\n$").match(run.out);
    ASSERT_TRUE(run.exitCode == 0 && match.hasMatch()) << run;
    EXPECT_GE(match.captured(1).toLongLong(), before);
    EXPECT_GE(match.captured(2).toLongLong(), before);
    expect({"events", "--wait", "300"}, 1, "",
           "pxtool: events: " + errorText(19) + " (0 of 1 received in 300 ms)");
    const ToolRun echo = expect({"bypass-send", "0x21", "01 02 ff", "--echo", "10000"}, 0, nullptr);
    const QRegularExpression packet(R"(^\d+ \S+ flow (0x\w+) (\d+) byte\(s\): ([0-9a-f ]*)\n$)");
    EXPECT_EQ(packet.match(echo.out).capturedTexts().mid(1), (QStringList{"0x21", "3", "01 02 ff"}))
        << echo;
    // A listener on two flows sees the packet on one of them and nothing of a third flow.
    Tool bypass(
        {"--port", "205", "bypass-listen", "0x22,0x23", "--count", "1", "--timeout", "30000"});
    ASSERT_TRUE(bypass.waitForError("listening on 2 flow(s)"));
    expect({"bypass-send", "0x30", "aa"}, 0);
    expect({"bypass-send", "0x23"}, 0); // empty packet
    const ToolRun packets = bypass.finish();
    EXPECT_EQ(packets.exitCode, 0) << packets;
    EXPECT_EQ(packet.match(packets.out).capturedTexts().mid(1), (QStringList{"0x23", "0", ""}))
        << packets;
    expect({"bypass-listen", "0x40", "--wait", "200"}, 1, "", errorText(8));
}

} // namespace
