// Open/close churn: thousands of connections made, used and destroyed. Afterwards the
// process has as many threads and file descriptors as before (the network thread, made once,
// is counted in the baseline), and LeakSanitizer (asan preset) reports nothing at exit.

#include "RobustnessSupport.h"
#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/nsconnection/PXNSConnection.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

constexpr int Cycles = robust::Sanitized ? 300 : 2000;

void noop(void*) {}

} // namespace

// PXConnection opened, used and destroyed from four threads at once. Under ThreadSanitizer
// this guards the hand-off of a detached socket to the network thread for deletion: it must be
// a posted event of the library's own (with its hand-off hints), not QObject::deleteLater(),
// whose event QtCore allocates on the closing thread unseen by the sanitizer. Then on the main
// thread PXConnection with callbacks set (the delayed one too), some reopened before they go,
// some opens failing (nothing listens); and PXNSConnection: events raised and signalled (or
// dropped with the object), a request, close or destroy.
TEST(Churn, ConnectionsComeAndGo)
{
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    const QString host = QStringLiteral("127.0.0.1");
    {
        // Warm up: the network thread and its application object exist from here on.
        PXConnection first;
        PXNSConnection second(nullptr);
        ASSERT_TRUE(first.open(host, simulator.port()) && second.open(host, simulator.port()));
        ASSERT_EQ(first.ping() + second.ping(), 0u);
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const int threads = robust::threadCount();
    const int fds = robust::fdCount();
    std::atomic<int> failures{0};
    std::vector<std::thread> churners;
    for (int t = 0; t < 4; ++t)
        churners.emplace_back([&] {
            for (int i = 0; i < Cycles / 4; ++i) {
                PXConnection connection;
                failures += !connection.open(host, simulator.port()) || connection.ping() != 0;
            }
        });
    for (auto& t : churners)
        t.join();
    int arrivals = 0;
    for (int i = 0; i < Cycles; ++i) {
        auto* connection = new PXConnection;
        unsigned int value = 0;
        bool ok = connection->open(host, simulator.port());
        connection->setEventCallback(noop, nullptr);
        connection->setBypassDelayCallback(noop, nullptr, 1);
        ok = ok && (i % 3 == 0 ? connection->read32(0x100, &value) : connection->ping()) == 0;
        if (i % 10 == 0) // reopen: the old socket and delayed callback are retired
            ok = ok && connection->open(host, simulator.port());
        if (i % 50 == 0) // a failed open leaves no socket behind
            ok = ok && !connection->open(host, 1);
        delete connection;

        auto* ns = new PXNSConnection(nullptr);
        QObject::connect(ns, &PXNSConnection::eventArrived, ns,
                         [&arrivals](qint64, uint32_t) { ++arrivals; });
        ok = ok && ns->open(host, simulator.port());
        if (i % 3 == 0)
            ok = ok && ns->enableEvents(true) == 0 && ns->write32(0xFFFFFF00u, unsigned(i)) == 0;
        failures += !(ok && ns->ping() == 0);
        if (i % 2 == 1)
            QCoreApplication::processEvents(); // signal what the ping held back
        else
            ns->close();
        delete ns;
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(arrivals, 0);
    // Threads and descriptors settle asynchronously (sockets are deleted on the network
    // thread, or later on this one): poll until they are back, with a deadline.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(waitUntil([&] {
        QCoreApplication::processEvents();
        return robust::threadCount() <= threads && robust::fdCount() <= fds;
    })) << "threads "
        << robust::threadCount() << " (was " << threads << "), fds " << robust::fdCount()
        << " (was " << fds << ")";
}
