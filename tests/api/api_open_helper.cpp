// A program that opens one connection with PXST_Open, as a host tool would: the launch
// tests copy it into a folder of their own next to a stand-in "pellix", so that the server
// PXST_Open starts from the application's folder is the stand-in.
//
// Usage: api_open_helper <port> <baud> <flow mode> [<default baud>]
// Prints "result <code> handle <handle> elapsed <ms>"; on success stops the server it reached
// (PXST_KillPellix) and closes the handle.

#include "pellix/api/PXLLibraryApi.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s <port> <baud> <flow mode> [<default baud>]\n", argv[0]);
        return 2;
    }
    if (argc >= 5)
        PXST_SetDefaultBaud(std::atoi(argv[4]));
    QElapsedTimer timer;
    timer.start();
    int handle = 0;
    const unsigned int result =
        PXST_Open(std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]), &handle);
    const long long elapsed = timer.elapsed();
    if (result == PXST_RESULT_OK) {
        PXST_KillPellix(handle);
        PXST_Close(handle);
    }
    std::printf("result %u handle %d elapsed %lld\n", result, handle, elapsed);
    return 0;
}
