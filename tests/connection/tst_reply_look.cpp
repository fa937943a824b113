// The policy that decides whether a waiting request looks for its reply before it sleeps.

#include "pellix/connection/PXReplyLook_p.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 Fast = PXReplyLook::LookTime / 10;
constexpr qint64 Slow = PXReplyLook::LookTime * 10;

// Runs `count` waits whose replies take `nanoseconds` (or never come); returns how many of
// them looked first.
int waits(PXReplyLook& look, int count, qint64 nanoseconds, bool replied = true)
{
    int looked = 0;
    for (int i = 0; i < count; ++i) {
        if (look.begin() > 0)
            ++looked;
        look.end(replied, nanoseconds);
    }
    return looked;
}

} // namespace

// Looks while replies come in time: fewer late (or missing) replies in a row than the limit do
// not stop it, and a reply of exactly LookTime is in time. After LateLimit of them only every
// ProbeEvery-th wait looks, until one reply in time, though nobody looked for it, brings the
// look back at once.
TEST(ReplyLook, StopsAfterLateRepliesButProbes)
{
    constexpr int Limit = PXReplyLook::LateLimit;
    for (const bool replied : {true, false}) {
        SCOPED_TRACE(replied ? "late replies" : "no replies");
        PXReplyLook look;
        EXPECT_EQ(look.begin(), PXReplyLook::LookTime);
        look.end(true, Fast);
        EXPECT_EQ(waits(look, 100, Fast), 100);
        EXPECT_EQ(waits(look, Limit - 1, Slow, replied), Limit - 1);
        EXPECT_EQ(waits(look, 1, Fast), 1);
        EXPECT_EQ(waits(look, Limit - 1, Slow, replied), Limit - 1);
        EXPECT_EQ(waits(look, 1, PXReplyLook::LookTime), 1);
        EXPECT_EQ(waits(look, Limit, Slow, replied), Limit);
        EXPECT_EQ(waits(look, 10 * int(PXReplyLook::ProbeEvery), Slow, replied), 10);
        while (look.begin() > 0)
            look.end(replied, Slow);
        look.end(true, Fast);
        EXPECT_EQ(waits(look, 3, Fast), 3);
    }
}
