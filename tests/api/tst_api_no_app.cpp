// The C interface in a program that creates no QCoreApplication (plain gtest main): the
// library runs its network thread all the same, and PXST_Open looks for the server in the
// current folder.

#include "SimulatorProcess.h"

#include "pellix/api/PXLLibraryApi.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <unistd.h>

TEST(ApiWithoutApplication, OpenSocketReadsAndWritesMemory)
{
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    int handle = 0;
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", simulator.port(), &handle), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write32(handle, 0x2000, 0xA1B2C3D4), PXST_RESULT_OK);
    unsigned int word = 0;
    EXPECT_EQ(PXST_Read32(handle, 0x2000, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0xA1B2C3D4u);
    unsigned char bytes[6] = {};
    EXPECT_EQ(PXST_ReadBlock(handle, 0x1FFF, bytes, 6), PXST_RESULT_OK);
    const unsigned char expected[6] = {0, 0xD4, 0xC3, 0xB2, 0xA1, 0};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(bytes[i], expected[i]) << i;
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
}

TEST(ApiWithoutApplication, OpenStartsTheServerFoundInTheCurrentFolder)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    QFile script(dir.filePath("pellix"));
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write(QStringLiteral("#!/bin/sh\nprintf '%s\\n' \"$@\" > '%1.part'\nmv '%1.part' '%1'\n"
                                "exec '%2/pellix' \"$@\"\n")
                     .arg(dir.filePath("arguments.txt"), SimulatorProcess::binaryFolder())
                     .toLocal8Bit());
    script.close();
    ASSERT_TRUE(script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    const QString previous = QDir::currentPath();
    ASSERT_EQ(chdir(QFile::encodeName(dir.path()).constData()), 0);
    int handle = 0;
    const unsigned int result = PXST_Open(130, -1, PXL_FLOW_XONXOFF, &handle);
    ASSERT_EQ(chdir(QFile::encodeName(previous).constData()), 0);
    ASSERT_EQ(result, PXST_RESULT_OK);

    QFile arguments(dir.filePath("arguments.txt"));
    ASSERT_TRUE(arguments.open(QIODevice::ReadOnly));
    EXPECT_EQ(arguments.readAll(), QByteArray("COM130\n921600\nxonxoff\n"));
    unsigned int word = 1;
    EXPECT_EQ(PXST_Read32(handle, 0x3000, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0u);

    EXPECT_EQ(PXST_KillPellix(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
    // Wait until the started server has gone, so that the next run starts its own.
    QElapsedTimer timer;
    timer.start();
    bool gone = false;
    while (!gone && !timer.hasExpired(10000)) {
        QTcpSocket probe;
        probe.connectToHost(QStringLiteral("127.0.0.1"), 7830);
        gone = !probe.waitForConnected(1000);
        if (!gone)
            QThread::msleep(20);
    }
    EXPECT_TRUE(gone);
}
