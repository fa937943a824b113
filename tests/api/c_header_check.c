/* Compiles the public C headers as C99 (-Wall -Wextra -pedantic -Werror) and calls a few
 * functions that need no server. */

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/lod/LODFileLoader.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

static void check(int condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "c_header_check: failed: %s\n", what);
        ++failures;
    }
}

static void progress(unsigned long long done, unsigned long long total, void* userData)
{
    (void)done;
    (void)total;
    (void)userData;
}

int main(void)
{
    int handle = 5;
    unsigned int fail = 9;
    PXLFlowMode mode = PXL_FLOW_HARDWARE;
    PXST_ProgressCallback callback = progress;
    unsigned char buffer[4] = {0, 0, 0, 0};

    check(PXST_RawOpen(3, 921600, mode, &handle) == PXST_RESULT_NO_CONNECTION, "RawOpen");
    check(handle == -1, "RawOpen handle");
    check(PXST_Close(12345) == PXST_RESULT_UNKNOWN_HANDLE, "Close");
    check(PXST_HandleStatus(12345) == 0, "HandleStatus");
    check(PXST_Read8(12345, 0x1000, buffer) == PXST_RESULT_UNKNOWN_HANDLE, "Read8");
    check(PXST_RawSendData(1, buffer, 4) == PXST_RESULT_UNSUPPORTED, "RawSendData");
    check(PXST_SetDefaultBaud(115200) == PXST_RESULT_OK, "SetDefaultBaud");
    check(PXST_VerifyLod(12345, "none.lod", &fail) == PXST_RESULT_UNKNOWN_HANDLE, "VerifyLod");
    check(fail == 0, "VerifyLod fail address");
    check(PXST_LoadLodProgress(12345, "none.lod", 1, NULL, callback, NULL) ==
              PXST_RESULT_UNKNOWN_HANDLE,
          "LoadLodProgress");
    check(strcmp(PXST_ResultText(PXST_RESULT_MISMATCH), PXST_ResultText(1)) != 0, "ResultText");
    check(LOD_Open("/nonexistent/none.lod") == NULL, "LOD_Open");

    printf("c_header_check: %d failure(s)\n", failures);
    return failures == 0 ? 0 : 1;
}
