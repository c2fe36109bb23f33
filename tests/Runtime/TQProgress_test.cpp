#include "Runtime/Values.h"

#include <vaultry/progress.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace {

using Progress = Ref<TQProgress>;

Progress Child(const Progress &parent, int64_t units = 10)
{
    return Progress::Adopt(TQProgressCreateChild(parent.get(), units));
}

TQProgress *interrupted;

} // namespace

TEST(Progress, CancellingReachesEveryDescendantAndNobodyElse)
{
    const Progress root = Child({}), left = Child(root), right = Child(root), leaf = Child(left);
    interrupted = left.get();
    signal(SIGUSR1, [](int) { TQProgressCancel(interrupted); });
    raise(SIGUSR1);
    signal(SIGUSR1, SIG_DFL);
    EXPECT_TRUE(TQProgressIsCancelled(left.get()) && TQProgressIsCancelled(leaf.get()));
    EXPECT_FALSE(TQProgressIsCancelled(root.get()) || TQProgressIsCancelled(right.get()));
}

TEST(Progress, ObserversOfEveryAncestorHearOfAChange)
{
    struct Heard {
        std::string *log;
        const char *name;
    };
    std::string log;
    const Progress root = Child({}), middle = Child(root), leaf = Child(middle);
    Heard atRoot{&log, "root "}, atLeaf{&log, "leaf "};
    const TQProgressObserver observer = [](TQProgress *changed, void *context) {
        const auto *heard = static_cast<Heard *>(context);
        *heard->log += heard->name + std::to_string(TQProgressGetCompletedUnits(changed)) + "/" +
                       std::to_string(TQProgressGetTotalUnits(changed)) + ";";
        TQProgressSetObserver(changed, nullptr, nullptr); // allowed from within
    };
    TQProgressSetObserver(root.get(), observer, &atRoot);
    TQProgressSetObserver(leaf.get(), observer, &atLeaf);
    TQProgressSetCompletedUnits(leaf.get(), 3);
    TQProgressSetTotalUnits(leaf.get(), 20);
    EXPECT_EQ(log, "leaf 3/10;root 3/10;root 3/20;");
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

TEST(Progress, ForgetsWhatIsTakenAway)
{
    const Progress progress = Child({});
    TQProgressSetKind(progress.get(), kTQProgressKindFile);
    TQProgressSetUserInfo(progress.get(), kTQProgressFileURLKey, Text("a value").get());
    EXPECT_EQ(Own(TQProgressCopyKind(progress.get())).get(), kTQProgressKindFile);
    EXPECT_EQ(UTF8(Own(TQProgressCopyUserInfo(progress.get(), kTQProgressFileURLKey))), "a value");
    TQProgressSetUserInfo(progress.get(), kTQProgressFileURLKey, nullptr);
    TQProgressSetKind(progress.get(), nullptr);
    EXPECT_EQ(TQProgressCopyUserInfo(progress.get(), kTQProgressFileURLKey), nullptr);
    EXPECT_EQ(TQProgressCopyKind(progress.get()), nullptr);
}

TEST(Progress, MayBeUsedFromEveryThread)
{
    const Progress root = Child({}), leaf = Child(root);
    std::atomic<int> heard{0};
    TQProgressSetObserver(
        root.get(), [](TQProgress *, void *context) { ++*static_cast<std::atomic<int> *>(context); }, &heard);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 500; ++round) {
                TQProgressSetCompletedUnits(leaf.get(), round);
                TQProgressSetUserInfo(leaf.get(), kTQProgressFileURLKey, Number(i * round).get());
                TQProgressSetKind(leaf.get(), kTQProgressKindFile);
                EXPECT_TRUE(Own(TQProgressCopyUserInfo(leaf.get(), kTQProgressFileURLKey)));
                TQRelease(TQProgressCopyKind(leaf.get()));
            }
            TQProgressCancel(root.get());
        });
    while (!TQProgressIsCancelled(leaf.get())) std::this_thread::yield();
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(heard, 2000);
}
