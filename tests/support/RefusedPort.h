#ifndef PELLIX_TESTS_REFUSEDPORT_H
#define PELLIX_TESTS_REFUSEDPORT_H

#include <QtGlobal>

// A TCP port on 127.0.0.1 where every connect is refused, for the life of the process. A
// socket stays bound to it without listening, so no test running in parallel can start
// listening there (a port merely released after use could be taken by one).
quint16 refusedPort();

#endif
