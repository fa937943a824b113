// PXST_Open when the server program beside the application is broken: missing (a file that
// is not executable fails to start the same way), exiting at once, or listening only after 9 s.
// Each case runs a host program copied into a folder of its own; PXST_Open must give 11 (or 0 for
// the late server) with the right handle, leave no unreaped child in that program, and leave no
// process of the stand-in behind. Serial port numbers 300 to 349 belong to these tests.

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fstream>

namespace {

struct OpenCase
{
    const char* name;
    const char* script; // the stand-in "pellix" (%1: the real one's folder); null: none
    int port;
    unsigned int result;
    int minMs, maxMs; // how long PXST_Open must take
};

// The case's name, also in the names ctest gives the cases (the default would print the
// object's bytes, pointers included, which change from build to build).
void PrintTo(const OpenCase& c, std::ostream* out)
{
    *out << c.name;
}

// The processes whose command line mentions one of `texts`, a line each.
std::string processesMentioning(const QStringList& texts)
{
    QString found;
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList({"[0-9]*"}, QDir::Dirs)) {
        QFile file(QStringLiteral("/proc/%1/cmdline").arg(pid));
        const QString line = QString::fromLocal8Bit(
            file.open(QIODevice::ReadOnly) ? file.readAll().replace('\0', ' ') : "");
        for (const QString& text : texts)
            found += line.contains(text) ? pid + QLatin1Char(' ') + line + QLatin1Char('\n') : "";
    }
    return found.toStdString();
}

using OpenFault = ::testing::TestWithParam<OpenCase>;

} // namespace

TEST_P(OpenFault, RightResultAndNothingLeftBehind)
{
    const OpenCase c = GetParam();
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString helper = dir.filePath(QStringLiteral("open_faults_helper"));
    // The copy keeps the helper's permissions.
    ASSERT_TRUE(QFile::copy(SimulatorProcess::binaryFolder() + "/open_faults_helper", helper));
    const QString script = dir.filePath(QStringLiteral("pellix"));
    if (c.script) {
        std::ofstream(script.toStdString()) << QString::fromLatin1(c.script)
                                                   .replace("%1", SimulatorProcess::binaryFolder())
                                                   .toStdString();
        ASSERT_TRUE(QFile::setPermissions(script, QFile::ReadOwner | QFile::ExeOwner));
    }

    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(helper, {QString::number(c.port)});
    ASSERT_TRUE(process.waitForFinished(60000));
    // The last line (a server the stand-in runs writes there too) is
    // "result <code> handle <handle> elapsed <ms> zombies <n>".
    const QList<QByteArray> out =
        process.readAllStandardOutput().trimmed().split('\n').last().split(' ');
    ASSERT_EQ(out.size(), 8) << out.join(' ').toStdString();
    EXPECT_EQ(out[1].toUInt(), c.result);
    EXPECT_TRUE(c.result == 0 ? out[3].toInt() > 0 : out[3] == "-1") << out[3].toStdString();
    EXPECT_GE(out[5].toLongLong(), c.minMs);
    EXPECT_LT(out[5].toLongLong(), c.maxMs);
    EXPECT_EQ(out[7], "0") << "unreaped children after PXST_Open";

    // The stand-in (and a server it ran, told to stop by the helper) is gone.
    const QStringList mentions = {dir.path(), QStringLiteral("COM%1 ").arg(c.port)};
    EXPECT_TRUE(waitUntil([&] { return processesMentioning(mentions).empty(); }, 10000))
        << processesMentioning(mentions);
}

INSTANTIATE_TEST_SUITE_P(Servers, OpenFault,
                         ::testing::Values(OpenCase{"Missing", nullptr, 301, 11, 10000, 20000},
                                           OpenCase{"ExitsAtOnce", "#!/bin/sh\nexit 3\n", 303, 11,
                                                    10000, 20000},
                                           OpenCase{"ListensAfterNineSeconds",
                                                    "#!/bin/sh\nsleep 9\nexec '%1/pellix' \"$@\"\n",
                                                    304, 0, 9000, 15000}),
                         [](const auto& p) { return std::string(p.param.name); });
