// A host program for the PXST_Open fault tests: the test copies it into a folder of its own
// beside a broken stand-in "pellix", so the server that PXST_Open starts is that stand-in.
//
// Usage: open_faults_helper <port>
// Opens with PXST_Open(port, -1, 0), closes (stopping a server it reached), then prints
// "result <code> handle <handle> elapsed <ms> zombies <n>": n is the number of this
// process's children left unreaped (state Z in /proc) once PXST_Open has returned.

#include "pellix/api/PXLLibraryApi.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

// Children of this process that have exited but were never waited for.
int zombieChildren()
{
    int zombies = 0;
    const QString self = QString::number(::getpid());
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& pid : entries) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // "pid (name) state ppid ...": the name may hold spaces, so cut after the last ')'.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields[1] == self.toLatin1() && fields[0] == "Z")
            ++zombies;
    }
    return zombies;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <port>\n", argv[0]);
        return 2;
    }
    QElapsedTimer timer;
    timer.start();
    int handle = 0;
    const unsigned int result = PXST_Open(std::atoi(argv[1]), -1, 0, &handle);
    const long long elapsed = timer.elapsed();
    const int zombies = zombieChildren();
    if (result == PXST_RESULT_OK) {
        PXST_KillPellix(handle);
        PXST_Close(handle);
    }
    std::printf("result %u handle %d elapsed %lld zombies %d\n", result, handle, elapsed, zombies);
    return 0;
}
