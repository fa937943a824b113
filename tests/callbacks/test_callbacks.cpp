// PXCallback, PXDelayCallback on the main thread's event loop, and PXDummyLogger.

#include "pellix/connection/PXCallback.h"
#include "pellix/log/PXLogReceiver.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

namespace {

void count(void* calls)
{
    ++*static_cast<int*>(calls);
}

TEST(Callback, TriggersOnlyWithAFunction)
{
    int calls = 0;
    PXCallback callback{};
    callback.trigger();
    callback.reset(&count, &calls);
    callback.trigger();
    callback.trigger();
    EXPECT_EQ(calls, 2);
    callback.reset(nullptr, &calls);
    callback.trigger();
    EXPECT_EQ(calls, 2);
}

// Tiggers during the delay neither add calls nor push the call out; the next tigger after
// the call starts a new delay.
TEST(DelayCallback, BurstGivesOneCallAfterTheDelayAndTiggersDoNotExtendIt)
{
    int calls = 0;
    PXDelayCallback delayed;
    delayed.reset(&count, &calls, 300);
    QElapsedTimer clock;
    clock.start();
    delayed.tigger();
    EXPECT_TRUE(delayed.isDelaying());
    // Keep tiggering while waiting: a restart would push the call out for as long as this goes
    // (and the wait would time out).
    ASSERT_TRUE(QTest::qWaitFor([&] {
        delayed.tigger();
        return calls > 0;
    }));
    // Qt's coarse timers may fire up to 5 % early (and elapsed() rounds down).
    EXPECT_GE(clock.elapsed(), 270);
    EXPECT_EQ(calls, 1);
    // The last poll's tigger started the next delay; reset cancels it.
    delayed.reset(&count, &calls, 10);
    delayed.tigger();
    delayed.tigger();
    ASSERT_TRUE(QTest::qWaitFor([&] { return calls == 2; }));
    EXPECT_FALSE(delayed.isDelaying()) << "no second call is pending";
}

TEST(DelayCallback, ResetCancelsTheDelayAndTakesTheNewPair)
{
    int first = 0, second = 0;
    PXDelayCallback delayed;
    delayed.reset(&count, &first, 0xFFFFFFFFu); // beyond int: still starts the timer
    delayed.tigger();
    EXPECT_TRUE(delayed.isDelaying());
    delayed.reset(&count, &second, 0);
    EXPECT_FALSE(delayed.isDelaying());
    delayed.tigger();
    EXPECT_EQ(second, 0) << "a delay of 0 still waits for the event loop";
    ASSERT_TRUE(QTest::qWaitFor([&] { return second == 1; }));
    EXPECT_EQ(first, 0);
}

TEST(DelayCallback, IsInertWithoutFunction)
{
    int calls = 0;
    PXDelayCallback delayed;
    delayed.tigger(); // never reset
    EXPECT_FALSE(delayed.isDelaying());
    delayed.reset(nullptr, &calls, 10);
    delayed.tigger();
    EXPECT_FALSE(delayed.isDelaying());
    delayed.run();
    EXPECT_EQ(calls, 0);
    delayed.reset(&count, &calls, 10);
    delayed.run();
    EXPECT_EQ(calls, 1);
}

TEST(DummyLogger, DupMakesANewLoggerOwnedByTheParent)
{
    auto* owner = new QObject;
    PXDummyLogger logger;
    QPointer<PXLogReceiver> copy = logger.dup(owner);
    ASSERT_FALSE(copy.isNull());
    EXPECT_NE(copy.data(), &logger);
    EXPECT_EQ(copy->parent(), owner);
    EXPECT_NE(dynamic_cast<PXDummyLogger*>(copy.data()), nullptr);
    std::unique_ptr<PXLogReceiver> orphan(copy->dup(nullptr));
    EXPECT_EQ(orphan->parent(), nullptr);
    delete owner;
    EXPECT_TRUE(copy.isNull());
}

} // namespace
