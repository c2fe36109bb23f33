#include "Shared/tq_log.h"
#include "support/CapturedLog.h"
#include "support/Tests.h"

using testing::ElementsAre;

namespace {

TEST(ErrorStatus, NobodyWantsToKnowOfMakesNoNoise)
{
    const CapturedLog log;
    const auto before = Ref<TQError>::Adopt(_TQCreateError(kTQPOSIXErrorDomain, 1, "old", nullptr));
    TQError *error = before.get();
    EXPECT_FALSE(_TQCreateErrorForStatus(&error, 100, "why", nullptr) || error != nullptr);
    EXPECT_FALSE(_TQCreateErrorForStatus(nullptr, 42, "why", nullptr) ||
                 _TQCreateErrorUseErrno(nullptr, ENOENT, "why"));
    EXPECT_THAT(CapturedLog::Take(), testing::IsEmpty());
}

TEST(ErrorStatus, OfAnErrorThatIsNotOursIsZeroAndSaid)
{
    const DeferredScope scope;
    const CapturedLog log(3);
    for (TQString *domain : {kTQLibraryErrorDomain, kTQPOSIXErrorDomain, kTQApplicationErrorDomain}) {
        EXPECT_EQ(TQErrorGetStatus(Ref<TQError>::Adopt(_TQCreateError(domain, 8, "m", nullptr)).get()), 0);
        EXPECT_THAT(CapturedLog::Take(), ElementsAre("3 SHOULD NOT HAPPEN"));
    }
    EXPECT_EQ(TQErrorGetStatus(_TQError(0, String("m").get(), nullptr)), 100);
    EXPECT_EQ(TQErrorGetStatus(_TQError(7, String("m").get(), nullptr)), 102);
    EXPECT_FALSE(TQErrorGetStatus(nullptr) != 0 || _TQErrorForStatus(100, String("m").get(), nullptr));
}

// A path may be longer than a message: what is cut there must not cost the caller the error.
TEST(ErrorDescription, IsCutBetweenCharactersAndShowsOtherBytesAsMarks)
{
    EXPECT_EQ(_TQCreateError(kTQLibraryErrorDomain, 1, "\xff", nullptr), nullptr);
    const TempDirectory directory;
    const std::string file = disk::Write(directory / "file", "") + "/";
    for (size_t shift = 0; shift < 4; ++shift) {
        std::string path = file + std::string(shift, 'a');
        while (path.size() < 1100) path += "\xF0\x9F\x93\x84";
        OwnedError error;
        EXPECT_FALSE(_RemoveTree(path.c_str(), 0, error.out()));
        ASSERT_NE(error.get(), nullptr) << shift;
        EXPECT_EQ(error.status(), kTQStatusBadPath);
        EXPECT_EQ(error.description().size() / 4, 255U) << "as much as fits";
    }
    OwnedError error;
    EXPECT_FALSE(_RemoveTree((file + "\xff").c_str(), 0, error.out()));
    EXPECT_EQ(error.status(), kTQStatusBadPath);
    EXPECT_NE(error.description().find("file/?'"), std::string::npos) << error.description();
}

} // namespace
