// What a host program does with its own process must not break the library, and the library
// must not change the process behind the host's back:
// - a host that destroys its QCoreApplication and then goes on using handles (closing them
//   later in main, or at exit) gets answers, not a hang;
// - a host without an application object (a plain C caller, a ctypes user) keeps its C
//   locale, every category of it, and gets no Qt warnings on stderr.
// Each case needs a process of its own (ctest runs every case in one).

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

// Closing at exit (after main() returns) and a second open (through the network thread's
// connect) included.
TEST(HostProcess, HandlesWorkAfterTheHostApplicationIsGone)
{
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());
    static int atExitHandle = -1;
    int handle = -1;
    {
        // A scoped application object, as a host's main() has one.
        int argc = 1;
        char name[] = "host";
        char* argv[] = {name, nullptr};
        QCoreApplication app(argc, argv);
        ASSERT_EQ(PXST_OpenSocket("127.0.0.1", simulator.port(), &handle), PXST_RESULT_OK);
        ASSERT_EQ(PXST_OpenSocket("127.0.0.1", simulator.port(), &atExitHandle), PXST_RESULT_OK);
        ASSERT_EQ(PXST_Write32(handle, 0x3000, 0x11223344), PXST_RESULT_OK);
    }
    EXPECT_NE(QCoreApplication::instance(), nullptr) << "the network thread took over";
    EXPECT_EQ(PXST_PellixClean(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Write32(handle, 0x3000, 0x55AA55AA), PXST_RESULT_OK);
    unsigned int value = 0;
    EXPECT_EQ(PXST_Read32(handle, 0x3000, &value), PXST_RESULT_OK);
    EXPECT_EQ(value, 0x55AA55AAu);
    EXPECT_TRUE(PXConnection::GetById(handle)->open("127.0.0.1", simulator.port()));
    EXPECT_EQ(PXST_Ping(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
    // The other handle is closed after main() returns, as a host's static destructor or
    // atexit handler would; the process's exit status says how that went (3 for a failed
    // close; a hang ends by the test's time-out).
    std::atexit([] {
        if (const unsigned int result = PXST_Close(atExitHandle)) {
            std::fprintf(stderr, "PXST_Close at exit returned %u\n", result);
            _exit(3);
        }
    });
}

// Without an application object the network thread makes one, without a word on stderr (Qt
// warns about one made off the main thread), leaves every category of the C locale as it
// found it, and runs timers (the delayed callback fires).
TEST(HostProcess, WithoutApplicationTheLibraryMakesOneQuietlyAndKeepsTheLocale)
{
    ASSERT_EQ(QCoreApplication::instance(), nullptr);
    // An environment that names a locale other than the one in force: an application object
    // that applied the environment would move LC_CTYPE and the others to C.UTF-8.
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LC_NUMERIC", "LC_MESSAGES", "LANGUAGE"})
        unsetenv(name);
    setenv("LANG", "C.UTF-8", 1);
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    ASSERT_NE(std::setlocale(LC_TIME, "C.UTF-8"), nullptr) << "a mixed locale, one category apart";
    // Mixed, so it names every category: "LC_CTYPE=C;LC_NUMERIC=C;LC_TIME=C.UTF-8;...".
    const std::string locale = std::setlocale(LC_ALL, nullptr);
    SimulatorProcess simulator;
    ASSERT_TRUE(simulator.isListening());

    testing::internal::CaptureStderr();
    int handle = -1;
    const unsigned int opened = PXST_OpenSocket("127.0.0.1", simulator.port(), &handle);
    const unsigned int pinged = PXST_Ping(handle);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_EQ(opened + pinged, PXST_RESULT_OK);
    EXPECT_TRUE(PXClientManager::ownsApplication());
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), locale);

    unsigned char ids[] = {0x11}, byte = 9;
    std::atomic<int> calls{0};
    ASSERT_EQ(PXST_BypassEnable(handle, ids, 1), PXST_RESULT_OK);
    ASSERT_EQ(PXST_BypassSetDelayCallback(
                  handle, [](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &calls, 20),
              PXST_RESULT_OK);
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x11, &byte, 1), PXST_RESULT_OK);
    EXPECT_TRUE(waitUntil([&] { return calls.load() == 1; }));
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
}
