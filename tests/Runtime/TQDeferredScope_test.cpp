#include "Runtime/Values.h"

#include <thread>

TEST(DeferredScope, ReleasesItsOwnNewestFirst)
{
    released.clear();
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
        static pthread_key_t later; // its clean-up comes after the library's
        pthread_key_create(&later, [](void *) { TQDefer(Noted("z")); });
        pthread_setspecific(later, &later);
    }).join(); // the thread's end releases what is left
    EXPECT_EQ(released, "dcby" + std::string(100, 'x') + "az");
}
