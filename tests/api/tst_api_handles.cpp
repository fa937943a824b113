// Handle numbering in a fresh process. This binary holds a single test case on purpose: the
// numbers depend on every connection the process has made before.

#include "ApiTestSupport.h"
#include "RefusedPort.h"

#include "pellix/api/PXLLibraryApi.h"

#include <gtest/gtest.h>

TEST(ApiHandles, NumberedFromOneInOpenOrderWithFailedOpensUsingANumber)
{
    apitest::MemoryServer server;
    int first = 0, failed = 0, third = 0, fourth = 0;
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", server.port(), &first), PXST_RESULT_OK);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(PXST_OpenSocket("127.0.0.1", refusedPort(), &failed), PXST_RESULT_NO_CONNECTION);
    EXPECT_EQ(PXST_Close(2), PXST_RESULT_UNKNOWN_HANDLE) << "a failed open leaves nothing";
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", server.port(), &third), PXST_RESULT_OK);
    EXPECT_EQ(third, 3);
    EXPECT_EQ(PXST_Close(first), PXST_RESULT_OK);
    ASSERT_EQ(PXST_OpenDefault(&fourth), PXST_RESULT_OK);
    EXPECT_EQ(fourth, 4) << "closed handles are never handed out again";
    EXPECT_EQ(PXST_Close(first), PXST_RESULT_UNKNOWN_HANDLE);
    EXPECT_EQ(PXST_Close(third), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(fourth), PXST_RESULT_OK);
}
