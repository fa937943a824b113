// PXST_Open's server launch, in a program without a QCoreApplication. Each case runs
// api_open_helper in a temporary folder holding a stand-in "pellix" that records its
// arguments and, unless told otherwise, runs the real simulator with them. Without an
// application the library looks for the server in the current folder, so the helper's
// PXST_Open starts the stand-in. (Starting from the application folder: tst_api_simulator.)

#include "ApiTestSupport.h"
#include "SimulatorProcess.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <ostream>

using namespace apitest;

namespace {

struct HelperRun
{
    unsigned int result = 999;
    int handle = 0;
    qint64 elapsed = -1;
    QString word; // read back after writing 0xA1B2C3D4
};

class ApiLaunch : public ::testing::Test
{
protected:
    // Puts the helper and the stand-in into the folder, runs the helper with `arguments`
    // ("<port> <baud> <flow mode> [<default baud>]") and reads its report.
    HelperRun run(bool runServer, const QStringList& arguments)
    {
        HelperRun run;
        EXPECT_TRUE(writeStandIn(dir.path(), runServer));
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.setWorkingDirectory(dir.path());
        process.start(SimulatorProcess::binaryFolder() + "/api_open_helper", arguments);
        EXPECT_TRUE(process.waitForFinished(60000)) << "helper did not finish";
        const QString out = QString::fromLocal8Bit(process.readAllStandardOutput());
        const auto match =
            QRegularExpression(R"(result (\d+) handle (-?\d+) elapsed (\d+) word (\w+))")
                .match(out);
        EXPECT_TRUE(match.hasMatch()) << "unexpected helper output: " << out.toStdString();
        if (match.hasMatch())
            run = {match.captured(1).toUInt(), match.captured(2).toInt(),
                   match.captured(3).toLongLong(), match.captured(4)};
        return run;
    }

    QTemporaryDir dir;
};

struct ArgumentCase
{
    const char* name;
    QStringList helperArguments; // port, baud, flow mode, default baud (optional)
    QStringList expected;
};

// Shown in the ctest name of each case instead of the bytes of the struct.
void PrintTo(const ArgumentCase& c, std::ostream* out)
{
    *out << c.helperArguments.join(' ').toStdString();
}

class ApiLaunchArguments : public ApiLaunch, public ::testing::WithParamInterface<ArgumentCase>
{};

} // namespace

TEST_P(ApiLaunchArguments, StartsTheServerWithPortBaudAndFlowWord)
{
    const ArgumentCase& c = GetParam();
    const HelperRun helper = run(true, c.helperArguments);
    EXPECT_EQ(helper.result, 0u);
    EXPECT_EQ(helper.handle, 1) << "the first connection of a process";
    EXPECT_EQ(helper.word, "a1b2c3d4");
    EXPECT_EQ(standInArguments(dir.path()), c.expected);
    EXPECT_TRUE(waitUntilNothingListens(quint16(7700 + c.helperArguments[0].toInt())))
        << "PXST_KillPellix did not stop the started server";
}

INSTANTIATE_TEST_SUITE_P(
    Api, ApiLaunchArguments,
    ::testing::Values(
        ArgumentCase{"DefaultBaudHardware", {"101", "-1", "1"}, {"COM101", "921600", "hardware"}},
        ArgumentCase{
            "SetDefaultBaudXonXoff", {"102", "-1", "2", "115200"}, {"COM102", "115200", "xonxoff"}},
        ArgumentCase{
            "ExplicitBaudNone", {"103", "57600", "0", "115200"}, {"COM103", "57600", "none"}},
        ArgumentCase{
            "UnknownFlowModeIsNone", {"104", "230400", "7"}, {"COM104", "230400", "none"}}),
    [](const ::testing::TestParamInfo<ArgumentCase>& param) { return param.param.name; });

TEST_F(ApiLaunch, ServerAlreadyListeningIsUsedAndNothingIsStarted)
{
    SimulatorProcess running = SimulatorProcess::withArguments({"COM110", "921600", "none"});
    ASSERT_EQ(running.port(), 7810);
    const HelperRun helper = run(true, {"110", "-1", "1"});
    EXPECT_EQ(helper.result, 0u);
    EXPECT_EQ(helper.handle, 1);
    EXPECT_EQ(helper.word, "a1b2c3d4");
    EXPECT_TRUE(standInArguments(dir.path()).isEmpty()) << "a server was started";
}

// The one case that waits out the whole 10 s start-up wait.
TEST_F(ApiLaunch, ServerThatNeverListensGivesNoConnectionAfterTenSeconds)
{
    const HelperRun helper = run(false, {"111", "-1", "0"});
    EXPECT_EQ(helper.result, 11u);
    EXPECT_EQ(helper.handle, -1);
    EXPECT_GE(helper.elapsed, 10000);
    EXPECT_LT(helper.elapsed, 20000);
    EXPECT_EQ(standInArguments(dir.path()), (QStringList{"COM111", "921600", "none"}));
}
