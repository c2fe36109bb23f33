#include "Runtime/Values.h"

#include <thread>

TEST(DeferredScope, ReleasesItsOwnNewestFirst)
{
    released.clear();
    const size_t outer = TQDeferredScopePush();
    TQDefer(Noted("a"));
    {
        const DeferredScope inner;
        for (const char *name : {"b", "c"}) TQDefer(Noted(name));
        (void)TQDeferredScopePush(); // left open
        TQDefer(Noted("d"));
    }
    EXPECT_EQ(released, "dcb");
    TQDeferredScopePop(outer);
    EXPECT_EQ(released, "dcba");
}

TEST(DeferredScope, ThreadsEndReleasesWhatIsLeft)
{
    released.clear();
    std::thread([] {
        for (int i = 0; i < 100; ++i) TQDefer(Noted("x"));
        const DeferredScope scope;
        TQDefer(Noted("y"));
    }).join();
    EXPECT_EQ(released, "y" + std::string(100, 'x'));
}
