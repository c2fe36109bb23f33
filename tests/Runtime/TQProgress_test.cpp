#include "Runtime/Values.h"

#include <vaultry/progress.h>

#include <atomic>
#include <thread>

namespace {

using Progress = Ref<TQProgress>;

constexpr auto Child = [](const Progress &parent) { return Progress::Adopt(TQProgressCreateChild(parent.get(), 10)); };

} // namespace

TEST(Progress, TellsEveryAncestorOfAChangeAndEveryDescendantOfTheEnd)
{
    static std::string log;
    log.clear();
    const Progress root = Child({}), middle = Child(root), beside = Child(root), leaf = Child(middle);
    const TQProgressObserver observer = [](TQProgress *changed, void *name) {
        log += static_cast<char *>(name) + std::to_string(TQProgressGetCompletedUnits(changed)) + "/" +
               std::to_string(TQProgressGetTotalUnits(changed)) + ";";
        TQProgressSetObserver(changed, nullptr, nullptr); // allowed from within
    };
    for (const auto &[observed, name] : {std::pair{root, "root "}, {leaf, "leaf "}, {beside, "beside "}})
        TQProgressSetObserver(observed.get(), observer, const_cast<char *>(name));
    TQProgressSetCompletedUnits(leaf.get(), 3);
    TQProgressSetTotalUnits(leaf.get(), 20);
    EXPECT_EQ(log, "leaf 3/10;root 3/10;root 3/20;");

    TQProgressCancel(middle.get());
    EXPECT_TRUE(TQProgressIsCancelled(middle.get()) && TQProgressIsCancelled(leaf.get()));
    EXPECT_FALSE(TQProgressIsCancelled(root.get()) || TQProgressIsCancelled(beside.get()));
}

TEST(Progress, IsCurrentPerThreadAndNests)
{
    const Progress outer = Child({}), inner = Child({});
    TQProgressBecomeCurrent(outer.get());
    TQProgressBecomeCurrent(inner.get());
    TQProgressResignCurrent(outer.get()); // not current now
    EXPECT_EQ(TQProgressGetCurrent(), inner.get());
    std::thread([&] {
        EXPECT_EQ(TQProgressGetCurrent(), nullptr);
        TQProgressBecomeCurrent(outer.get()); // given back by the thread's end
    }).join();
    TQProgressResignCurrent(inner.get());
    EXPECT_EQ(TQProgressGetCurrent(), outer.get());
    TQProgressResignCurrent(outer.get());
    EXPECT_EQ(TQProgressGetCurrent(), nullptr);
}

TEST(Progress, MayBeUsedFromEveryThread)
{
    const Progress root = Child({}), leaf = Child(root);
    std::atomic<int> heard{0};
    const auto hear = [](TQProgress *, void *context) { ++*static_cast<std::atomic<int> *>(context); };
    TQProgressSetObserver(root.get(), hear, &heard);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 500; ++round) {
                TQProgressSetCompletedUnits(leaf.get(), round);
                TQProgressSetUserInfo(leaf.get(), kTQProgressFileURLKey, Number(i * round).get());
                TQProgressSetKind(leaf.get(), kTQProgressKindFile);
                EXPECT_TRUE(Own(TQProgressCopyUserInfo(leaf.get(), kTQProgressFileURLKey)));
                EXPECT_EQ(Own(TQProgressCopyKind(leaf.get())).get(), kTQProgressKindFile);
            }
            TQProgressCancel(root.get());
        });
    while (!TQProgressIsCancelled(leaf.get())) std::this_thread::yield();
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(heard, 2000);
    TQProgressSetUserInfo(leaf.get(), kTQProgressFileURLKey, nullptr);
    TQProgressSetKind(leaf.get(), nullptr);
    EXPECT_FALSE(TQProgressCopyUserInfo(leaf.get(), kTQProgressFileURLKey) || TQProgressCopyKind(leaf.get()));
}
