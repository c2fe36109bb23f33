#include "Runtime/Values.h"

#include <thread>

namespace {

std::string released; // in which order

// Defers a value that notes its release under `name`.
void Defer(const char *name)
{
    TQAllocatorContext context{};
    context.deallocate = [](void *noted, void *) { released += static_cast<char *>(noted); };
    static TQAllocator *const notes = TQAllocatorCreate(nullptr, &context);
    TQDefer(TQDataCreateNoCopy(nullptr, const_cast<char *>(name), 1, notes));
}

} // namespace

TEST(DeferredScope, ReleasesItsOwnNewestFirst)
{
    released.clear();
    const size_t outer = TQDeferredScopePush();
    Defer("a");
    {
        const DeferredScope inner;
        for (const char *name : {"b", "c"}) Defer(name);
        (void)TQDeferredScopePush(); // left open
        Defer("d");
    }
    EXPECT_EQ(released, "dcb");
    TQDeferredScopePop(outer);
    EXPECT_EQ(released, "dcba");
}

TEST(DeferredScope, ThreadsEndReleasesWhatIsLeft)
{
    released.clear();
    std::thread([] {
        for (int i = 0; i < 100; ++i) Defer("x");
        const DeferredScope scope;
        Defer("y");
    }).join();
    EXPECT_EQ(released, "y" + std::string(100, 'x'));
}
