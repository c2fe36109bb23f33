#include "Runtime/Values.h"

#include <thread>

namespace {

std::string released; // the names of noted values that are gone, in order

// A value that notes its release.
TQValue *Noted(const char *name)
{
    TQAllocatorContext context{};
    context.deallocate = [](void *noted, void *) { released += static_cast<char *>(noted); };
    static TQAllocator *const notes = TQAllocatorCreate(nullptr, &context);
    return TQDataCreateNoCopy(nullptr, const_cast<char *>(name), 1, notes);
}

} // namespace

TEST(DeferredScope, ReleasesItsOwnNewestFirst)
{
    std::thread([] {
        TQDefer(Noted("a"));
        {
            const DeferredScope inner;
            for (const char *name : {"b", "c"}) TQDefer(Noted(name));
            (void)TQDeferredScopePush(); // left open
            TQDefer(Noted("d"));
        }
        EXPECT_EQ(released, "dcb");
        for (int i = 0; i < 100; ++i) TQDefer(Noted("x"));
        (void)TQDeferredScopePush();
        TQDefer(Noted("y"));
    }).join(); // the thread's end releases what is left
    EXPECT_EQ(released, "dcby" + std::string(100, 'x') + "a");
}
