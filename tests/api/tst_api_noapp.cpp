// The C interface in a program without a QCoreApplication, as a plain C caller uses it. The
// single case counts on a fresh process (ctest runs every case in one): the handle numbers
// depend on every connection the process has made before.

#include "RefusedPort.h"
#include "SimulatorProcess.h"

#include "pellix/api/PXLLibraryApi.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

// The open waits out the whole 10 s start-up wait (its time and the handle it gives: the
// open-fault tests in tests/robustness).
TEST(ApiNoApp, OpenThatCannotStartTheServerThenHandlesInOpenOrder)
{
    // A stand-in "pellix" in the current folder that records its arguments and never listens.
    QTemporaryDir dir;
    const QString record = dir.filePath("arguments.txt"), standIn = dir.filePath("pellix");
    std::ofstream(standIn.toStdString())
        << "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" << record.toStdString() << "'\n";
    ASSERT_TRUE(QFile::setPermissions(standIn, QFile::ReadOwner | QFile::ExeOwner));
    ASSERT_TRUE(QDir::setCurrent(dir.path()));
    PXST_SetDefaultBaud(115200);
    int handle = 0, second = 0, failed = 0, fourth = 0, fifth = 0;
    EXPECT_EQ(PXST_Open(111, -1, PXL_FLOW_XONXOFF, &handle), PXST_RESULT_NO_CONNECTION);
    std::ifstream in(record.toStdString());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "COM111\n115200\nxonxoff\n");

    SimulatorProcess server;
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", server.port(), &second), PXST_RESULT_OK);
    EXPECT_EQ(second, 2) << "the failed open used up number 1";
    EXPECT_EQ(PXST_OpenSocket("127.0.0.1", refusedPort(), &failed), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(PXST_Close(3), PXST_RESULT_UNKNOWN_HANDLE) << "a failed open leaves nothing";
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", server.port(), &fourth), PXST_RESULT_OK);
    EXPECT_EQ(fourth, 4);
    EXPECT_EQ(PXST_Close(second), PXST_RESULT_OK);
    ASSERT_EQ(PXST_OpenDefault(&fifth), PXST_RESULT_OK);
    EXPECT_EQ(fifth, 5) << "closed handles are never handed out again";
    EXPECT_EQ(PXST_Close(second), PXST_RESULT_UNKNOWN_HANDLE);
    EXPECT_EQ(PXST_Close(fourth), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(fifth), PXST_RESULT_OK);
}
