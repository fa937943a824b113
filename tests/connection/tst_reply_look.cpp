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

TEST(ReplyLook, LooksWhileRepliesComeInTime)
{
    PXReplyLook look;
    EXPECT_EQ(look.begin(), PXReplyLook::LookTime);
    look.end(true, Fast);
    EXPECT_EQ(waits(look, 100, Fast), 100);
    // Fewer late replies in a row than the limit do not stop it.
    EXPECT_EQ(waits(look, PXReplyLook::LateLimit - 1, Slow), PXReplyLook::LateLimit - 1);
    EXPECT_EQ(waits(look, 1, Fast), 1);
    EXPECT_EQ(waits(look, PXReplyLook::LateLimit - 1, Slow), PXReplyLook::LateLimit - 1);
    EXPECT_EQ(waits(look, 1, PXReplyLook::LookTime), 1);
}

TEST(ReplyLook, SlowLinkStopsLookingButProbes)
{
    for (const bool replied : {true, false}) {
        SCOPED_TRACE(replied ? "late replies" : "no replies");
        PXReplyLook look;
        EXPECT_EQ(waits(look, PXReplyLook::LateLimit, Slow, replied), PXReplyLook::LateLimit);
        // From now on only every ProbeEvery-th wait looks.
        const int many = 10 * int(PXReplyLook::ProbeEvery);
        EXPECT_EQ(waits(look, many, Slow, replied), 10);
        // One reply in time, though nobody looked for it, brings the look back at once.
        while (look.begin() > 0)
            look.end(replied, Slow);
        look.end(true, Fast);
        EXPECT_EQ(waits(look, 3, Fast), 3);
    }
}
