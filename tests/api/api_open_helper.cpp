// A program that opens one connection with PXST_Open, as a host tool would, and creates no
// QCoreApplication: the library runs its network thread all the same and looks for the
// server in the current folder, where the launch tests put a stand-in "pellix".
//
// Usage: api_open_helper <port> <baud> <flow mode> [<default baud>]
// Prints "result <code> handle <handle> elapsed <ms> word <hex>"; on success writes and
// reads back a word, stops the server it reached (PXST_KillPellix) and closes the handle.

#include "pellix/api/PXLLibraryApi.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s <port> <baud> <flow mode> [<default baud>]\n", argv[0]);
        return 2;
    }
    if (argc >= 5)
        PXST_SetDefaultBaud(std::atoi(argv[4]));
    const auto start = std::chrono::steady_clock::now();
    int handle = 0;
    const unsigned int result =
        PXST_Open(std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]), &handle);
    const long long elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - start)
                                  .count();
    unsigned int word = 0;
    if (result == PXST_RESULT_OK) {
        PXST_Write32(handle, 0x2000, 0xA1B2C3D4);
        PXST_Read32(handle, 0x2000, &word);
        PXST_KillPellix(handle);
        PXST_Close(handle);
    }
    std::printf("result %u handle %d elapsed %lld word %x\n", result, handle, elapsed, word);
    return 0;
}
