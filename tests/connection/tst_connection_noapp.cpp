// A program without an application object (a plain C caller, a ctypes user): the network
// thread creates one itself, keeps Qt's off-main-thread warning off stderr, and requests work.

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <unistd.h>

TEST(ConnectionNoApp, NetworkThreadCreatesTheApplicationQuietly)
{
    ASSERT_EQ(QCoreApplication::instance(), nullptr);
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());

    // Catch what the library writes to stderr while its thread starts.
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    FILE* capture = std::tmpfile();
    ASSERT_NE(capture, nullptr);
    dup2(fileno(capture), STDERR_FILENO);

    PXConnection connection;
    const bool opened = connection.open("127.0.0.1", simulator.port());
    const unsigned int pinged = connection.ping();

    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::rewind(capture);
    char text[4096] = {};
    const size_t got = std::fread(text, 1, sizeof(text) - 1, capture);
    std::fclose(capture);

    EXPECT_TRUE(opened);
    EXPECT_EQ(pinged, 0u);
    EXPECT_TRUE(PXClientManager::ownsApplication());
    EXPECT_NE(QCoreApplication::instance(), nullptr);
    EXPECT_EQ(got, 0u) << text;

    // Timers of the network thread run too: the delayed callback fires.
    unsigned char ids[] = {0x11};
    connection.setBypassFlowIds(ids, 1);
    std::atomic<int> calls{0};
    connection.setBypassDelayCallback([](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &calls,
                                      20);
    unsigned char byte = 9;
    connection.sendBypassPacket(0x11, &byte, 1);
    EXPECT_TRUE(waitUntil([&] { return calls.load() == 1; }));
}
