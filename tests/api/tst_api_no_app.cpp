// The C interface in a program that creates no QCoreApplication (plain gtest main): the
// library runs its network thread all the same, and PXST_Open looks for the server in the
// current folder.

#include "ApiTestSupport.h"

#include "pellix/api/PXLLibraryApi.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

TEST(ApiWithoutApplication, OpenStartsTheServerFoundInTheCurrentFolder)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ASSERT_TRUE(apitest::writeStandIn(dir.path(), true));
    const QString previous = QDir::currentPath();
    ASSERT_EQ(chdir(QFile::encodeName(dir.path()).constData()), 0);
    int handle = 0;
    const unsigned int result = PXST_Open(130, -1, PXL_FLOW_XONXOFF, &handle);
    ASSERT_EQ(chdir(QFile::encodeName(previous).constData()), 0);
    ASSERT_EQ(result, PXST_RESULT_OK);
    EXPECT_EQ(apitest::standInArguments(dir.path()), (QStringList{"COM130", "921600", "xonxoff"}));

    ASSERT_EQ(PXST_Write32(handle, 0x2000, 0xA1B2C3D4), PXST_RESULT_OK);
    unsigned char bytes[6] = {};
    EXPECT_EQ(PXST_ReadBlock(handle, 0x1FFF, bytes, 6), PXST_RESULT_OK);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(bytes), 6), QByteArray("\0\xD4\xC3\xB2\xA1\0", 6));
    EXPECT_EQ(PXST_KillPellix(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
    // Wait until the started server has gone, so that the next run starts its own.
    EXPECT_TRUE(apitest::waitUntilNothingListens(7830));
}
