// The user-timer record and its list: due-time arithmetic across the tick
// counter's wrap, list order and unlinking.
#include <gtest/gtest.h>

#include "panel/UserTimer.h"

namespace {

TEST(UserTimerTest, DueWhenReachedOrPassedByLessThanHalfTheCounter)
{
    CUserTimer t(1, 1000);
    EXPECT_FALSE(t.IsDue(999));
    EXPECT_TRUE(t.IsDue(1000));
    EXPECT_TRUE(t.IsDue(1001));
    // Passed by 2^31 - 1 ms is still due; 2^31 ms before the due time is not.
    EXPECT_TRUE(t.IsDue(1000 + 0x7FFFFFFFu));
    EXPECT_FALSE(t.IsDue(1000u - 0x80000000u));
    EXPECT_TRUE(t.IsDue(1000u - 0x80000001u));
}

TEST(UserTimerTest, DueTimeBeyondTheWrapWaitsForTheWrap)
{
    // Started 1000 ms before the counter wraps, due 500 ms after it.
    const DWORD start = 0xFFFFFFFFu - 999;
    CUserTimer t(1, start + 1500);
    EXPECT_EQ(t.DueTime(), 500u);
    EXPECT_FALSE(t.IsDue(start));
    EXPECT_FALSE(t.IsDue(0xFFFFFFFFu));
    EXPECT_FALSE(t.IsDue(0));
    EXPECT_FALSE(t.IsDue(499));
    EXPECT_TRUE(t.IsDue(500));
    EXPECT_TRUE(t.IsDue(501));

    // Due just before the wrap, looked at just after it.
    CUserTimer late(2, 0xFFFFFFF0u);
    EXPECT_FALSE(late.IsDue(0xFFFFFFE0u));
    EXPECT_TRUE(late.IsDue(0x10));
}

TEST(UserTimerTest, ListRunsNewestFirstAndUnlinksCleanly)
{
    CUserTimer* head = nullptr;
    auto* a = new CUserTimer(1, 10);
    auto* b = new CUserTimer(2, 20);
    auto* c = new CUserTimer(3, 30);
    CUserTimer::Insert(a, head);
    CUserTimer::Insert(b, head);
    CUserTimer::Insert(c, head);
    EXPECT_EQ(head, c);
    EXPECT_EQ(c->Next(), b);
    EXPECT_EQ(b->Next(), a);
    EXPECT_EQ(a->Next(), nullptr);

    EXPECT_EQ(CUserTimer::Find(head, 2), b);
    EXPECT_EQ(CUserTimer::Find(head, 4), nullptr);
    // Identifiers compare in their low 16 bits.
    EXPECT_EQ(CUserTimer::Find(head, 0x10003), c);

    // The middle one out: the list closes over it and it keeps no link.
    CUserTimer::Remove(b, head);
    EXPECT_EQ(head, c);
    EXPECT_EQ(c->Next(), a);
    EXPECT_EQ(b->Next(), nullptr);
    delete b;  // alone: the list is untouched
    EXPECT_EQ(CUserTimer::Find(head, 3), c);
    EXPECT_EQ(CUserTimer::Find(head, 1), a);

    // A record that is not in the list leaves it alone.
    CUserTimer stranger(9, 0);
    CUserTimer::Remove(&stranger, head);
    EXPECT_EQ(head, c);
    EXPECT_EQ(c->Next(), a);

    // The head out, then the last one.
    CUserTimer::Remove(c, head);
    EXPECT_EQ(head, a);
    delete c;
    CUserTimer::Remove(a, head);
    EXPECT_EQ(head, nullptr);
    delete a;
}

}  // namespace
