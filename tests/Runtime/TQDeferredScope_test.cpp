#include "Runtime/Values.h"

#include <thread>

namespace {

std::string released; // in which order

void NoteRelease(void *name, void *)
{
    released += static_cast<char *>(name);
}

// A value that notes its release under `name`.
TQValue *Noting(const char *name)
{
    static TQAllocator *const notes = [] {
        TQAllocatorContext context{};
        context.deallocate = NoteRelease;
        return TQAllocatorCreate(nullptr, &context);
    }();
    return TQDataCreateNoCopy(nullptr, const_cast<char *>(name), 1, notes);
}

} // namespace

TEST(DeferredScope, ReleasesItsOwnNewestFirst)
{
    released.clear();
    const size_t outer = TQDeferredScopePush();
    TQDefer(Noting("a"));
    {
        const DeferredScope inner;
        TQDefer(Noting("b"));
        TQDefer(Noting("c"));
        (void)TQDeferredScopePush(); // left open
        TQDefer(Noting("d"));
    }
    EXPECT_EQ(released, "dcb");
    TQDeferredScopePop(outer);
    EXPECT_EQ(released, "dcba");
}

TEST(DeferredScope, ThreadsEndReleasesWhatIsLeft)
{
    released.clear();
    std::thread([] {
        for (int i = 0; i < 100; ++i) TQDefer(Noting("x"));
        const DeferredScope scope;
        TQDefer(Noting("y"));
    }).join();
    EXPECT_EQ(released, "y" + std::string(100, 'x'));
}
