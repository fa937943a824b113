// A host program for the PXST_Open fault tests: the test copies it into a folder of its own
// beside a broken stand-in "pellix", so the server that PXST_Open starts is that stand-in.
//
// Usage: open_faults_helper <port>
// Opens with PXST_Open(port, -1, 0), closes (stopping a server it reached), then prints
// "result <code> handle <handle> elapsed <ms> zombies <n>": n is 1 when a child of this
// process was left unreaped once PXST_Open had returned, else 0.

#include "pellix/api/PXLLibraryApi.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QElapsedTimer timer;
    timer.start();
    int handle = 0;
    const unsigned int result = PXST_Open(std::atoi(argv[1]), -1, 0, &handle);
    const long long elapsed = timer.elapsed();
    // An exited child that nobody waited for; WNOWAIT leaves it as it is.
    siginfo_t info{};
    const int zombies = waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid;
    // Stops a server it reached; on handle -1 both calls just return 3.
    PXST_KillPellix(handle);
    PXST_Close(handle);
    std::printf("result %u handle %d elapsed %lld zombies %d\n", result, handle, elapsed, zombies);
    return 0;
}
