#include "Shared/vaultry_internal.h"
#include "support/CapturedLog.h"
#include "support/Tests.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string Description(const TQError *error)
{
    return Text(Ref<TQString>::Adopt(TQErrorCopyDescription(error)).get());
}

// Clients compare domains and codes; the lopsided rows are theirs to rely on.
TEST(StatusCodes, BecomeErrorsAndComeBackAsClientsKnowThem)
{
    const DeferredScope scope;
    const CapturedLog log;
    TQString *const library = kTQLibraryErrorDomain, *const application = kTQApplicationErrorDomain;
    ASSERT_EQ(Text(library), "TQLibraryErrorDomain");
    const std::tuple<int32_t, TQString *, intptr_t, int32_t> rows[] = {
        {0, library, 1, 101},         {101, library, 1, 101}, {102, library, 7, 102},
        {103, library, 1, 101},       {104, library, 2, 104}, {105, library, 3, 105},
        {106, application, 516, 106}, {107, library, 5, 107}, {108, library, 6, 108},
        {109, application, 640, 109}, {110, library, 9, 110}, {111, application, 642, 111},
        {112, library, 3, 105},       {113, library, 10, 0}};
    for (const auto &[status, domain, code, back] : rows) {
        SCOPED_TRACE(status);
        TQString *found = nullptr;
        EXPECT_EQ(_TQErrorCodeAndDomainForStatus(status, &found), code);
        EXPECT_TRUE(TQEqual(found, domain));
        OwnedError below, error;
        *below.out() = _TQCreateError(kTQPOSIXErrorDomain, EIO, nullptr, nullptr);
        EXPECT_FALSE(_TQCreateErrorForStatus(error.out(), status, "why", below.get()));
        for (TQError *made : {error.get(), _TQErrorForStatus(status, String("why").get(), below.get())}) {
            EXPECT_TRUE(TQEqual(TQErrorGetDomain(made), domain) && TQErrorGetCode(made) == code);
            EXPECT_EQ(Description(made), "why");
            EXPECT_EQ(TQErrorGetUnderlying(made), below.get());
            EXPECT_EQ(TQErrorGetStatus(made), back);
        }
    }
    EXPECT_THAT(CapturedLog::Take(), ElementsAre("3 SHOULD NOT HAPPEN", "3 SHOULD NOT HAPPEN")) << "only 113 is lost";
}

TEST(StatusCodes, ThatMakeNoErrorStoreNull)
{
    const CapturedLog log;
    for (const int32_t status : {100, 42}) {
        SCOPED_TRACE(status);
        const auto before = Ref<TQError>::Adopt(_TQCreateError(kTQPOSIXErrorDomain, 1, "old", nullptr));
        TQError *error = before.get();
        EXPECT_FALSE(_TQCreateErrorForStatus(&error, status, "why", nullptr) || error != nullptr);
        EXPECT_EQ(_TQErrorForStatus(status, String("why").get(), nullptr), nullptr);
        EXPECT_EQ(CapturedLog::Take(),
                  std::vector<std::string>(status == 100 ? 0 : 2, "3 Unknown status code encountered: 42"));
        EXPECT_FALSE(_TQCreateErrorForStatus(nullptr, status, "why", nullptr) ||
                     _TQCreateErrorUseErrno(nullptr, ENOENT, "why"));
        EXPECT_THAT(CapturedLog::Take(), IsEmpty()) << "nobody wants to know";
    }
}

TEST(StatusCodes, OfSystemErrorNumbers)
{
    const std::map<int, int32_t> listed = {
        {EPERM, 108},  {ENOENT, 104},  {EACCES, 108},       {EEXIST, 106},    {EXDEV, 104},  {ENOTDIR, 104},
        {EISDIR, 104}, {ETXTBSY, 108}, {ENOSPC, 109},       {EROFS, 111},     {ERANGE, 109}, {ENOTSUP, 107},
        {ELOOP, 104},  {EDQUOT, 109},  {ENAMETOOLONG, 104}, {ENOTEMPTY, 104}, {ENODATA, 112}};
    const DeferredScope scope;
    for (int number = -1; number < 140; ++number) {
        SCOPED_TRACE(number);
        const int32_t status = listed.count(number) != 0 ? listed.at(number) : 101;
        EXPECT_EQ(TQGetStatusForErrno(number), status);
        OwnedError error;
        EXPECT_FALSE(_TQCreateErrorUseErrno(error.out(), number, "why"));
        for (TQError *made : {error.get(), _TQErrorForErrno(number, String("why").get())}) {
            EXPECT_EQ(TQErrorGetStatus(made), status == 112 ? 105 : status);
            EXPECT_EQ(Description(made), "why");
            const TQError *below = TQErrorGetUnderlying(made);
            EXPECT_TRUE(TQEqual(TQErrorGetDomain(below), kTQPOSIXErrorDomain) && TQErrorGetCode(below) == number);
            EXPECT_EQ(Description(below), strerror(number));
        }
    }
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
