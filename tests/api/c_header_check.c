/* Compiles the public C headers as C99 (-Wall -Wextra -pedantic -Werror) and calls a few
 * functions that need no server. */

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/lod/LODFileLoader.h"

#include <stdio.h>

/* Never called here: the handle it is given to is unknown. */
static int progress(unsigned long long done, unsigned long long total, void* userData)
{
    return userData != NULL && done < total;
}

int main(void)
{
    int handle = 5, failures = 0;

    failures += PXST_RawOpen(3, 921600, PXL_FLOW_HARDWARE, &handle) != PXST_RESULT_NO_CONNECTION ||
                handle != -1;
    failures += PXST_LoadLodProgress(12345, "none.lod", 1, NULL, progress, NULL) !=
                PXST_RESULT_UNKNOWN_HANDLE;
    failures += LOD_Open("/nonexistent/none.lod") != NULL;
    failures += PXST_PingPellix(12345) != PXST_RESULT_UNKNOWN_HANDLE;
    failures += PXST_ChangeBaudRate(12345, 115200) != PXST_RESULT_UNKNOWN_HANDLE;
    printf("c_header_check: %d failure(s)\n", failures);
    return failures == 0 ? 0 : 1;
}
