#include "Shared/tq_log.h"
#include "support/CapturedLog.h"
#include "support/Tests.h"

namespace {

TEST(ErrorStatus, OfWhatIsNoErrorOfOursIsZeroAndSaid)
{
    const DeferredScope scope;
    const CapturedLog log;
    const auto old = Ref<TQError>::Adopt(_TQCreateError(kTQPOSIXErrorDomain, 1, "old", nullptr));
    TQError *error = old.get();
    EXPECT_FALSE(_TQCreateErrorForStatus(&error, 100, "why", nullptr) || error != nullptr);
    EXPECT_FALSE(_TQCreateErrorForStatus(nullptr, 42, "why", nullptr) ||
                 _TQCreateErrorUseErrno(nullptr, ENOENT, "why"));
    EXPECT_THAT(CapturedLog::Take(), testing::IsEmpty()) << "nobody wants to know";
    EXPECT_EQ(TQErrorGetStatus(old.get()), 0);
    EXPECT_THAT(CapturedLog::Take(), testing::ElementsAre("3 SHOULD NOT HAPPEN"));
    for (TQString *domain : {kTQLibraryErrorDomain, kTQApplicationErrorDomain})
        EXPECT_EQ(TQErrorGetStatus(Ref<TQError>::Adopt(_TQCreateError(domain, 8, "m", nullptr)).get()), 0);
    EXPECT_EQ(TQErrorGetStatus(_TQError(0, String("m").get(), nullptr)), 100);
    EXPECT_EQ(TQErrorGetStatus(_TQError(7, String("m").get(), nullptr)), 102);
    EXPECT_EQ(_TQCreateError(kTQLibraryErrorDomain, 1, "\xff", nullptr), nullptr);
    EXPECT_FALSE(TQErrorGetStatus(nullptr) != 0 || _TQErrorForStatus(100, String("m").get(), nullptr));
}

} // namespace
