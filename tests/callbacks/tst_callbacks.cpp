// PXCallback, PXDelayCallback on the main thread's event loop, and PXDummyLogger.

#include "pellix/connection/PXCallback.h"
#include "pellix/log/PXLogReceiver.h"

#include <QElapsedTimer>
#include <QTest>

#include <gtest/gtest.h>

static const auto count = [](void* calls) { ++*static_cast<int*>(calls); };

// A null function switches a callback off (the delayed one: below). (Never set: the connection
// tests, whose events and packets mostly arrive without a callback, and whose delayed callback
// holders are mostly never reset.)
TEST(Callback, CallsOnlyWithAFunction)
{
    int calls = 0;
    PXCallback callback{};
    callback.reset(count, &calls);
    callback.trigger();
    callback.reset(nullptr, &calls);
    callback.trigger();
    EXPECT_EQ(calls, 1);
}

// Tiggers during the delay neither add calls nor push the call out; reset cancels a pending
// delay and takes the new pair, and a null function switches it off.
TEST(DelayCallback, OneCallPerBurstAndResetCancels)
{
    int calls = 0, other = 0;
    PXDelayCallback delayed;
    delayed.reset(count, &calls, 300);
    QElapsedTimer clock;
    clock.start();
    // Keep tiggering while waiting: a restart would push the call out for as long as this goes
    // (and the wait would time out).
    ASSERT_TRUE(QTest::qWaitFor([&] {
        delayed.tigger();
        return calls > 0;
    }));
    EXPECT_GE(clock.elapsed(), 270); // coarse timers may fire up to 5 % early
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(delayed.isDelaying());         // the last poll's tigger started the next delay
    delayed.reset(count, &other, 0xFFFFFFFFu); // beyond int: still starts the timer
    EXPECT_FALSE(delayed.isDelaying());
    delayed.tigger();
    EXPECT_TRUE(delayed.isDelaying());
    delayed.reset(count, &other, 0);
    delayed.tigger();
    delayed.tigger();
    EXPECT_EQ(other, 0) << "a delay of 0 still waits for the event loop";
    ASSERT_TRUE(QTest::qWaitFor([&] { return other == 1; }));
    EXPECT_FALSE(delayed.isDelaying()) << "no second call is pending";
    delayed.reset(nullptr, &calls, 10);
    delayed.tigger();
    EXPECT_FALSE(delayed.isDelaying());
    delayed.run();
    EXPECT_EQ(calls, 1);
}

TEST(DummyLogger, DupMakesANewLoggerOwnedByTheParent)
{
    QObject owner;
    PXDummyLogger logger;
    PXLogReceiver* copy = logger.dup(&owner);
    ASSERT_NE(dynamic_cast<PXDummyLogger*>(copy), nullptr);
    EXPECT_EQ(copy->parent(), &owner);
}
