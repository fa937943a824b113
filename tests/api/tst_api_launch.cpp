// PXST_Open's server launch. Each case copies api_open_helper into a temporary folder beside
// a stand-in "pellix" script that records its arguments and, unless told otherwise, runs the
// real simulator with them. The helper's PXST_Open therefore starts the stand-in from its
// application folder, exactly as a host tool starts the server shipped beside it.

#include "SimulatorProcess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

namespace {

struct HelperRun
{
    unsigned int result = 999;
    int handle = 0;
    qint64 elapsed = -1;
};

class ApiLaunch : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }

    // Puts the helper and a stand-in server into the folder. `runServer`: the stand-in goes on
    // to run the real simulator; otherwise it only records its arguments and exits.
    void prepare(bool runServer)
    {
        const QString helper = dir.filePath("api_open_helper");
        ASSERT_TRUE(QFile::copy(SimulatorProcess::binaryFolder() + "/api_open_helper", helper));
        QFile script(dir.filePath("pellix"));
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        const QString arguments = dir.filePath("arguments.txt");
        QString text = QStringLiteral("#!/bin/sh\nprintf '%s\\n' \"$@\" > '%1.part'\n"
                                      "mv '%1.part' '%1'\n")
                           .arg(arguments);
        if (runServer)
            text +=
                QStringLiteral("exec '%1/pellix' \"$@\"\n").arg(SimulatorProcess::binaryFolder());
        script.write(text.toLocal8Bit());
        script.close();
        const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
        ASSERT_TRUE(script.setPermissions(executable));
        ASSERT_TRUE(QFile::setPermissions(helper, executable));
    }

    HelperRun runHelper(const QStringList& arguments)
    {
        QProcess process;
        process.setProgram(dir.filePath("api_open_helper"));
        process.setArguments(arguments);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start();
        HelperRun run;
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
            ADD_FAILURE() << "helper did not finish";
            return run;
        }
        const QString out = QString::fromLocal8Bit(process.readAllStandardOutput());
        static const QRegularExpression line(
            QStringLiteral("result (\\d+) handle (-?\\d+) elapsed (\\d+)"));
        const auto match = line.match(out);
        if (!match.hasMatch()) {
            ADD_FAILURE() << "unexpected helper output: " << out.toStdString();
            return run;
        }
        run.result = match.captured(1).toUInt();
        run.handle = match.captured(2).toInt();
        run.elapsed = match.captured(3).toLongLong();
        return run;
    }

    // The stand-in's arguments, one per line; null when it never ran.
    QStringList recordedArguments() const
    {
        QFile file(dir.filePath("arguments.txt"));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QString::fromLocal8Bit(file.readAll()).split('\n', Qt::SkipEmptyParts);
    }

    QTemporaryDir dir;
};

// True once nothing accepts connections on the port any more (the server has stopped).
bool waitUntilNothingListens(quint16 port, int timeoutMs = 10000)
{
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(timeoutMs)) {
        QTcpSocket probe;
        probe.connectToHost(QStringLiteral("127.0.0.1"), port);
        if (!probe.waitForConnected(1000))
            return true;
        probe.abort();
        QThread::msleep(20);
    }
    return false;
}

struct ArgumentCase
{
    const char* name;
    int port;
    int baud;
    int flowMode;
    int defaultBaud; // 0: PXST_SetDefaultBaud is not called
    QStringList expected;
};

class ApiLaunchArguments : public ApiLaunch, public ::testing::WithParamInterface<ArgumentCase>
{};

} // namespace

TEST_P(ApiLaunchArguments, ServerIsStartedFromTheApplicationFolderWithPortBaudAndFlowWord)
{
    const ArgumentCase& c = GetParam();
    prepare(true);
    QStringList arguments{QString::number(c.port), QString::number(c.baud),
                          QString::number(c.flowMode)};
    if (c.defaultBaud != 0)
        arguments << QString::number(c.defaultBaud);
    const HelperRun run = runHelper(arguments);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.handle, 1) << "the first connection of a process";
    EXPECT_EQ(recordedArguments(), c.expected);
    EXPECT_TRUE(waitUntilNothingListens(quint16(7700 + c.port)))
        << "PXST_KillPellix did not stop the started server";
}

INSTANTIATE_TEST_SUITE_P(
    Api, ApiLaunchArguments,
    ::testing::Values(
        ArgumentCase{"DefaultBaudHardware", 101, -1, 1, 0, {"COM101", "921600", "hardware"}},
        ArgumentCase{"SetDefaultBaudXonXoff", 102, -1, 2, 115200, {"COM102", "115200", "xonxoff"}},
        ArgumentCase{"ExplicitBaudNone", 103, 57600, 0, 115200, {"COM103", "57600", "none"}},
        ArgumentCase{"UnknownFlowModeIsNone", 104, 230400, 7, 0, {"COM104", "230400", "none"}}),
    [](const ::testing::TestParamInfo<ArgumentCase>& param) { return param.param.name; });

TEST_F(ApiLaunch, ServerAlreadyListeningIsUsedAndNothingIsStarted)
{
    prepare(true);
    SimulatorProcess running = SimulatorProcess::withArguments({"COM110", "921600", "none"});
    ASSERT_EQ(running.port(), 7810);
    const HelperRun run = runHelper({"110", "-1", "1"});
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.handle, 1);
    EXPECT_TRUE(recordedArguments().isEmpty()) << "a server was started";
}

// The one case that waits out the whole 10 s start-up wait.
TEST_F(ApiLaunch, ServerThatNeverListensGivesNoConnectionAfterTenSeconds)
{
    prepare(false);
    const HelperRun run = runHelper({"111", "-1", "0"});
    EXPECT_EQ(run.result, 11u);
    EXPECT_EQ(run.handle, -1);
    EXPECT_GE(run.elapsed, 10000);
    EXPECT_LT(run.elapsed, 20000);
    EXPECT_EQ(recordedArguments(), (QStringList{"COM111", "921600", "none"}));
}
