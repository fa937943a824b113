// pxtool end to end: the real executable against the real pellix simulator. The cases that go
// by serial port number own one in 200..249 (TCP 7900..7949), so the cases run in parallel.
// The library's result codes are the library tests' business; here one case per kind of exit.

#include "FakeServer.h"
#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include <pellix/api/PXLLibraryApi.h>

namespace {

const QString tool = SimulatorProcess::binaryFolder() + "/pxtool";

struct ToolRun
{
    int exitCode = -1;
    QString out, err;
};

// Runs `program` (pxtool, or another name in the binary folder, or a path) with `input` on
// its standard input, expecting `exitCode`, exactly `out` on stdout (null: not checked) and
// each of `err` somewhere in stderr.
ToolRun expectRun(const QStringList& arguments, int exitCode, const char* out = "",
                  const QStringList& err = {}, const QString& program = "pxtool",
                  const QByteArray& input = {})
{
    QProcess process;
    process.start(QDir(SimulatorProcess::binaryFolder()).filePath(program), arguments);
    process.write(input);
    process.closeWriteChannel();
    const bool ended =
        process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit;
    const ToolRun run{ended ? process.exitCode() : -1, process.readAllStandardOutput(),
                      process.readAllStandardError()};
    EXPECT_TRUE(run.exitCode == exitCode && (out == nullptr || run.out.toStdString() == out) &&
                std::all_of(err.begin(), err.end(), [&](auto& e) { return run.err.contains(e); }))
        << qPrintable(arguments.join(' ') + "\nexit " + QString::number(run.exitCode) +
                      "\nstdout:\n" + run.out + "\nstderr:\n" + run.err);
    return run;
}

// A simulator of its own (on a free port) for each case, which pxtool reaches by --tcp-port,
// and a folder of its own, which is the working folder: files go by their plain names.
class ToolTest : public ::testing::Test
{
protected:
    ToolTest() { QDir::setCurrent(folder.path()); }
    ToolRun expect(const QStringList& arguments, int exitCode, const char* out = "",
                   const QStringList& err = {}, const QByteArray& input = {})
    {
        return expectRun(server + arguments, exitCode, out, err, "pxtool", input);
    }
    // Writes `content` to the file `name`, or reads it back.
    static QString writeFile(const QString& name, const QByteArray& content)
    {
        std::ofstream(name.toStdString(), std::ios::binary) << content.toStdString();
        return name;
    }
    static QByteArray readFile(const QString& name)
    {
        QFile f(name);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
    }

    SimulatorProcess simulator;
    QTemporaryDir folder;
    // pxtool's arguments that reach this case's simulator.
    const QStringList server{"--tcp-port", QString::number(simulator.port())};
};

// ---- without a server -------------------------------------------------------------------

// Usage errors: a case for each kind of mistake; the parsing of numbers and bytes has its
// tables in tst_tool_text. Help: the command list comes from the command table; one command's
// help stands for the others. The server's version and help are checked here as well.
TEST(PXToolUsage, CommandLinesHelpAndVersions)
{
    // Port 249 has no server; a usage error must be found before any connection attempt
    // (which would start one).
    const QStringList p{"--port", "249"};
    const std::pair<QStringList, const char*> cases[] = {
        // clang-format off
        {{}, "no command given"}, {{"frobnicate"}, "unknown command 'frobnicate'"},
        {p + QStringList{"ping", "--bogus"}, "unknown option '--bogus'"},
        {p + QStringList{"read32"}, "missing argument: expected 'read32 ADDRESS'"},
        {p + QStringList{"write8", "0x10", "0x100"}, "bad value '0x100'"},
        {p + QStringList{"--out", "f", "read", "0", "4"}, "command options go after the command"},
        {{"ping"}, "give the target's port with --port N"},
        {{"--port", "65536", "ping"}, "bad port number '65536'"},
        // clang-format on
    };
    for (const auto& [arguments, message] : cases)
        expectRun(arguments, 2, "", {message});
    // Nothing was started on port 249 by any of them. kill never starts a server: with none
    // it fails with exit 1, the result code and its text.
    expectRun(p + QStringList{"kill"}, 1, "",
              {"error 11: " + QString(PXST_ResultText(11)) + " (no server for COM249 at"});

    EXPECT_TRUE(expectRun({"--help"}, 0, nullptr)
                    .out.contains("\n  read-masked      read the bytes a mask selects\n"));
    const ToolRun read = expectRun({"help", "read"}, 0, nullptr);
    EXPECT_EQ(read.out.section('\n', 0, 0),
              "Usage: pxtool [options] read ADDRESS SIZE [command options]");
    expectRun({"read", "--help"}, 0, qPrintable(read.out));
    expectRun({"--version"}, 0, "pxtool " PELLIX_VERSION "\n");
    expectRun({"--version"}, 0, "pellix " PELLIX_VERSION "\n", {}, "pellix");
    EXPECT_TRUE(expectRun({"--help"}, 0, nullptr, {}, "pellix").out.contains("--frame-size"));
}

// ---- against a simulator ------------------------------------------------------------------

// No simulator is started here: pxtool's PXST_Open starts "pellix COM201 ..." beside itself.
TEST(PXToolServer, OpenStartsTheServerBesideTheToolAndKillStopsIt)
{
    const QStringList port{"--port", "201"};
    const auto answers = [&] {
        return QProcess::execute(tool, port + QStringList{"--no-start", "ping"}) == 0;
    };
    ASSERT_FALSE(answers()) << "a server already runs on port 201";
    expectRun(port + QStringList{"--baud", "115200", "ping"}, 0, nullptr,
              {"started pellix COM201 115200 none (127.0.0.1:7901); stop it with 'pxtool --port "
               "201 kill'"});
    EXPECT_TRUE(expectRun(port + QStringList{"kill"}, 0).err.isEmpty());
    // The server exits after reading the request: wait until nothing answers any more.
    EXPECT_TRUE(waitUntil([&] { return !answers(); }, 10000)) << "it still answers after kill";
    // A pxtool without a pellix beside it says so at once instead of probing for 10 s.
    QTemporaryDir alone;
    ASSERT_TRUE(QFile::copy(tool, alone.filePath("pxtool")));
    expectRun({"--port", "247", "ping"}, 1, "",
              {"and no " + alone.filePath("pellix") + " to start"}, alone.filePath("pxtool"));
}

// Commands and what each prints, in order: a read follows its write. An "events" follower
// runs meanwhile and prints the events that writes to the event register raise.
// Followers: --count 0 ends after enabling, --timeout 0 after subscribing; a server that goes
// away ends them with an error.
TEST_F(ToolTest, CommandsPrintTheirResultsAndFollowersEndWhenTheServerGoes)
{
    QProcess events;
    events.start(tool, server + QStringList{"events"});
    const std::string masked = "00001000  41 -- 43 -- ff" + std::string(34, ' ') + "  |A.C..|\n";
    const std::pair<const char*, std::string> steps[] = {
        // clang-format off
        {"write8 0x1001 7", ""}, {"read8 0x1001", "0x07\n"},
        {"write16 0x2005 65535", ""}, {"read16 0x2005", "0xFFFF\n"}, // odd address: byte reads
        {"write32 0x3000 0x12345678", ""}, {"read32 0x3000", "0x12345678\n"},
        {"write-internal 0x10 0x5A", ""}, {"read-internal 0x10", "0x5A\n"},
        {"write 0x1000 --data 414243:00ff", ""}, {"read-masked 0x1000 --mask ff00ff0fff", masked},
        {"status", "1\n"}, {"clean", ""}, {"flush", ""}, {"break", ""}, {"auto-baud", ""},
        {"flow-mode xonxoff", ""}, {"usb-id 0x1234 0xABCD", ""}, {"reconnect", ""},
        {"events --count 0", ""},
        // clang-format on
    };
    for (const auto& [command, out] : steps)
        expect(QString(command).split(' '), 0, out.c_str());
    const ToolRun echo = expect({"bypass-send", "0x21", "01 02 ff", "--echo", "10000"}, 0, nullptr);
    EXPECT_TRUE(echo.out.endsWith(" flow 0x21 3 byte(s): 01 02 ff\n")) << echo.out.toStdString();
    EXPECT_TRUE(waitUntil([&] {
        expect({"write32", "0xFFFFFF00", "0x2A"}, 0);
        return events.waitForReadyRead(50);
    }));
    const QString stamp = R"(^\d+ \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 0x0000002A\n$)";
    EXPECT_TRUE(QRegularExpression(stamp).match(events.readLine()).hasMatch());
    // --trace: each frame in hexadecimal with its direction and handle, on stderr.
    expect({"--trace", "read8", "0x10"}, 0, "0x00\n",
           {"pellix.frames: [1] > bb 00 05 ff 00 10 00 00 00\n",
            "pellix.frames: [1] < bb 00 05 7f 10 00 00 00 00\n"});
    expect({"bypass-listen", "0x21,0x22", "--timeout", "0"}, 0, "", {"listening on 2 flow(s)"});

    expect({"kill"}, 0);
    ASSERT_TRUE(events.waitForFinished(15000));
    EXPECT_EQ(events.exitCode(), 1);
    EXPECT_TRUE(events.readAllStandardError().contains("(the server has gone)"));
}

// Files in and out: bad firmware refused, good firmware loaded, verified and dumped, a
// verification that finds a mismatch; blocks of 100 KiB + 3 bytes, more than one 64 KiB piece
// and an odd tail.
TEST_F(ToolTest, FirmwareAndBlocksFromAndToFiles)
{
    // Files that the library would read leniently are refused before anything is sent, naming
    // the file, the line and the problem; --lenient lets the library have its way.
    const std::pair<const char*, const char*> cases[] = {
        // clang-format off
        {"@1000\nGARBAGE\n", ":2: 'GARBAGE' is not a hexadecimal number"},
        {"@XYZ\n1\n", ":1: bad address: 'XYZ'"},
        {"@1000\n1122334455\n", ":2: '1122334455' does not fit in 32 bits"},
        {"@1FFFFFFFF\n1\n", ":1: bad address: '1FFFFFFFF' does not fit"},
        {"@FFFFFFFC\n1\n2\n", ":3: the packet runs past the end"},
        {"", ": no data"}, {"@1000\n\n1\n", ":3: data line outside a packet"},
        {"@1000\n\x01\n", ":2: control character"},
        // clang-format on
    };
    for (const auto& [content, problem] : cases)
        expect({"load", writeFile("bad.lod", content)}, 3, "", {"bad.lod" + QString(problem)});
    expect({"read32", "0x1000"}, 0, "0x00000000\n"); // nothing was written
    expect({"load", writeFile("g.lod", "@1000\n12\nGARBAGE\n"), "--lenient"}, 0, "");
    expect({"dump", "0x1000", "2", "-"}, 0, "@00001000\n00000012\n00000000\n");
    // A skipped packet is said, not silent.
    expect({"load", writeFile("s.lod", "@1000\n1\n\n@F0000000\n1\n2\n")}, 0, "",
           {"line 4: packet at 0xF0000000 (2 words) skipped"});

    QByteArray data;
    for (int i = 0; i < 100 * 1024 + 3; ++i)
        data += char(i * 7 + i / 256 + i / 65536);
    // Summaries go to stderr: stdout carries data only.
    EXPECT_TRUE(expect({"write", "0x40001", writeFile("in.bin", data)}, 0, "")
                    .err.startsWith("write: 100.00 KiB in "));
    expect({"read", "0x40001", "102403", "--out", "out.bin"}, 0, nullptr);
    EXPECT_TRUE(readFile("out.bin") == data);
    // A file the tool reads or writes itself: exit 3 with the system's reason.
    expect({"write", "0x1000", "missing.bin"}, 3, "", {"cannot open 'missing.bin': No such file"});

    const QString good =
        writeFile("good.lod", "# two packets\n@00001000\n11111111\n22222222\n33333333\n\n"
                              "@00002000\nABCDEF01\n@F0000000\n99999999\n");
    expect({"load", good, "--verify"}, 0, "", {": 16 B written in ", ": 16 B match in "});
    expect({"dump", "0x1000", "3", "-"}, 0, "@00001000\n11111111\n22222222\n33333333\n");
    // --progress draws the bar even into a pipe, ending at 100%.
    expect({"--progress", "load", good}, 0, nullptr, {"load [", "100%"});
    expect({"write", "0x1004", "--data", "0000000000000000"}, 0);
    expect({"verify", good, "--max-report", "1"}, 1,
           "0x00001004: expected 0x22222222, read 0x00000000\n",
           {"error 17: " + QString(PXST_ResultText(17)) +
            " (2 words differ; first 0x00001004: expected 0x22222222, read 0x00000000)"});
}

// Outputs: every write error fails, nothing half-written is left, a closed pipe ends a command
// at once. Scripts: one JSON object per result and per failure, "-" for standard input and
// output.
TEST_F(ToolTest, OutputsFailLoudlyAndServeScripts)
{
    expect({"dump", "0", "64", "/dev/full"}, 3, "", {"cannot write '/dev/full': No space left"});
    expect({"dump", "0", "1", "x.lod"}, 0, "");
    expect({"dump", "0xFFFFFFFC", "2", "x.lod"}, 2, "", {"runs past the end"});
    EXPECT_EQ(readFile("x.lod"), QByteArray("@00000000\n00000000\n"));
    // A stop signal in the middle of a long dump: error 21, and no file at all.
    const auto files = [&] { return QDir(folder.path()).entryList(QDir::Files | QDir::Hidden); };
    QProcess dump;
    dump.start(tool, server + QStringList{"dump", "0", "0x40000000", "big.bin", "--binary"});
    // Once its temporary file is there, the dump is under way.
    ASSERT_TRUE(waitUntil([&] { return files().size() == 2; }, 20000));
    dump.terminate();
    ASSERT_TRUE(dump.waitForFinished(20000));
    EXPECT_EQ(dump.exitCode(), 1);
    EXPECT_TRUE(dump.readAllStandardError().contains("error 21: "));
    EXPECT_EQ(files().join(' '), "x.lod");
    // A reader that goes away ends a read of 256 MiB long before it could be done: exit 3.
    const QString read =
        "timeout 10 '" + tool + "' " + server.join(' ') + " read 0 0x10000000 | head -c1";
    expectRun({"-c", read + " >/dev/null; echo ${PIPESTATUS[0]}"}, 0, "3\n", {}, "/bin/bash");

    writeFile("in.bin", "\x08");
    const std::tuple<QStringList, int, const char*> cases[] = {
        // clang-format off
        {{"write32", "0x10", "7"}, 0, R"({"command":"write32","ok":true})"},
        {{"read32", "0x10"}, 0, R"({"command":"read32","ok":true,"address":16,"value":7})"},
        {{"read", "0x10", "2"}, 0, R"({"command":"read","ok":true,"address":16,"data":"07 00"})"},
        {{"read32", "x"}, 2, R"({"command":"read32","ok":false,"exit":2,"error":"bad address 'x')"},
        {{"verify", "in.bin", "--format", "binary", "--address", "0x10"}, 1,
         R"({"command":"verify","ok":false,"exit":1,"code":17,"error":)"},
        // clang-format on
    };
    for (const auto& [args, code, line] : cases)
        EXPECT_TRUE(expect(QStringList{"--json"} + args, code, nullptr).out.startsWith(line))
            << line;
    expect({"write", "0x20", "-"}, 0, "", {}, "\x01\x02\x03\x04");
    expect({"dump", "0x20", "1", "-"}, 0, "@00000020\n04030201\n");
}

// Every format, made by the standard tools: each loads and verifies at its own address (raw
// binary, read as load reads it, verifies at each of theirs), a dump in each reads back
// through objcopy to the same bytes, convert goes between them.
TEST_F(ToolTest, FirmwareFormatsOfTheStandardTools)
{
    const QByteArray blob = FakeServer::memoryBytes(0, 1001);
    writeFile("blob.bin", blob);
    writeFile("s.ld", "SECTIONS { .data 0x2000 : AT(0x13000) { *(.data) } }\n");
    expectRun({"-c", "objcopy -I binary -O ihex --change-addresses 0x11000 blob.bin blob.hex && "
                     "objcopy -I binary -O srec --change-addresses 0x12000 blob.bin blob.srec && "
                     "objcopy -I binary -O elf32-i386 -B i386 blob.bin blob.o && "
                     "ld -m elf_i386 -T s.ld blob.o -o blob.elf"},
              0, nullptr, {}, "/bin/bash");
    for (const char* name : {"blob.hex", "blob.srec", "blob.elf"})
        expect({"load", name, "--verify"}, 0, "");
    for (const char* address : {"0x11000", "0x12000", "0x13000"})
        expect({"verify", "blob.bin", "--format", "binary", "--address", address}, 0, "");
    const std::pair<QString, QString> dumps[] = {{"hex", "ihex"}, {"srec", "srec"}};
    for (const auto& [format, objcopyName] : dumps) {
        expect({"dump", "0x13000", "250", "d." + format, "--format", format}, 0, "");
        expectRun({"-c", "objcopy -I " + objcopyName + " -O binary d." + format + " back.bin"}, 0,
                  nullptr, {}, "/bin/bash");
        EXPECT_EQ(readFile("back.bin"), blob.left(1000)) << format.toStdString();
    }
    expect({"convert", "blob.elf", "c.srec"}, 0, "");
    expect({"convert", "c.srec", "c.bin"}, 0, "");
    EXPECT_EQ(readFile("c.bin"), blob);
    // The wrong format named: a hint. A cut file: its own problem, nothing loaded.
    expect({"verify", "blob.hex", "--format", "lod"}, 3, "", {"(this looks like Intel HEX)"});
    const QByteArray hex = readFile("blob.hex");
    writeFile("cut.hex", hex.left(hex.lastIndexOf(":00000001FF")));
    expect({"load", "cut.hex"}, 3, "", {"Intel HEX: no end-of-file record"});
}

} // namespace
