// PXCallback, PXDelayCallback on the main thread's event loop, and PXDummyLogger.

#include "pellix/connection/PXCallback.h"
#include "pellix/log/PXLogReceiver.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

namespace {

struct Counter
{
    int calls = 0;
};

void count(void* data)
{
    ++static_cast<Counter*>(data)->calls;
}

// Runs the event loop until `done` holds or `ms` pass; true when it holds.
template <typename Predicate>
bool waitFor(Predicate done, int ms = 10000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < ms)
        QTest::qWait(5);
    return done();
}

TEST(Callback, TriggersOnlyWithAFunction)
{
    Counter counter;
    PXCallback callback{};
    callback.trigger();

    callback.reset(&count, &counter);
    callback.trigger();
    callback.trigger();
    EXPECT_EQ(counter.calls, 2);

    callback.reset(nullptr, &counter);
    callback.trigger();
    EXPECT_EQ(counter.calls, 2);
}

TEST(DelayCallback, BurstGivesOneCallAfterTheDelay)
{
    Counter counter;
    PXDelayCallback delayed;
    delayed.reset(&count, &counter, 100);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 10; ++i)
        delayed.tigger();
    EXPECT_EQ(counter.calls, 0);
    EXPECT_TRUE(delayed.isDelaying());

    ASSERT_TRUE(waitFor([&] { return counter.calls > 0; }));
    // Qt's coarse timers may fire up to 5 % early.
    EXPECT_GE(clock.elapsed(), 90);
    EXPECT_EQ(counter.calls, 1);
    EXPECT_FALSE(delayed.isDelaying()) << "no second call is pending";

    // The next arrival after the call starts a new delay.
    delayed.tigger();
    ASSERT_TRUE(waitFor([&] { return counter.calls == 2; }));
    EXPECT_FALSE(delayed.isDelaying());
}

TEST(DelayCallback, TiggerDuringTheDelayDoesNotExtendIt)
{
    Counter counter;
    PXDelayCallback delayed;
    delayed.reset(&count, &counter, 300);
    QElapsedTimer clock;
    clock.start();
    delayed.tigger();
    // Keep tiggering while waiting: a restart would push the call out for as long as this goes.
    ASSERT_TRUE(waitFor([&] {
        delayed.tigger();
        return counter.calls > 0;
    }));
    EXPECT_LT(clock.elapsed(), 3000);
}

TEST(DelayCallback, ResetCancelsTheDelayAndTakesTheNewPair)
{
    Counter first, second;
    PXDelayCallback delayed;
    delayed.reset(&count, &first, 50);
    delayed.tigger();
    delayed.reset(&count, &second, 0);
    EXPECT_FALSE(delayed.isDelaying());

    delayed.tigger();
    EXPECT_EQ(second.calls, 0) << "a delay of 0 still waits for the event loop";
    ASSERT_TRUE(waitFor([&] { return second.calls == 1; }));
    EXPECT_EQ(first.calls, 0);
}

TEST(DelayCallback, IsInertWithoutFunction)
{
    Counter counter;
    PXDelayCallback fresh;
    fresh.tigger();
    EXPECT_FALSE(fresh.isDelaying());
    fresh.run();

    fresh.reset(nullptr, &counter, 10);
    fresh.tigger();
    EXPECT_FALSE(fresh.isDelaying());
    fresh.run();
    EXPECT_EQ(counter.calls, 0);

    fresh.reset(&count, &counter, 10);
    fresh.run();
    EXPECT_EQ(counter.calls, 1);
}

TEST(DelayCallback, DelayBeyondIntStillStartsTheTimer)
{
    Counter counter;
    PXDelayCallback delayed;
    delayed.reset(&count, &counter, 0xFFFFFFFFu);
    delayed.tigger();
    EXPECT_TRUE(delayed.isDelaying());
    delayed.reset(nullptr, nullptr, 0);
    EXPECT_FALSE(delayed.isDelaying());
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
