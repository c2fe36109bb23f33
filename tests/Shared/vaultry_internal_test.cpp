#include "Shared/vaultry_internal.h"
#include "support/CapturedLog.h"
#include "support/Disk.h"
#include "support/Library.h"

#include <vaultry/filesystem.h>
#include <vaultry/number.h>

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

// Clients compare domains and codes; the lopsided rows are theirs to rely on.
TEST(StatusCodes, BecomeErrorsAndComeBackAsClientsKnowThem)
{
    const DeferredScope scope;
    const CapturedLog log;
    TQString *const library = kTQLibraryErrorDomain, *const application = kTQApplicationErrorDomain;
    ASSERT_EQ(Text(library), "TQLibraryErrorDomain");
    const struct {
        int32_t status;
        TQString *domain;
        intptr_t code;
        int32_t back;
    } rows[] = {{0, library, 1, 101},         {101, library, 1, 101}, {102, library, 7, 102},
                {103, library, 1, 101},       {104, library, 2, 104}, {105, library, 3, 105},
                {106, application, 516, 106}, {107, library, 5, 107}, {108, library, 6, 108},
                {109, application, 640, 109}, {110, library, 9, 110}, {111, application, 642, 111},
                {112, library, 3, 105},       {113, library, 10, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.status);
        TQString *domain = nullptr;
        EXPECT_EQ(_TQErrorCodeAndDomainForStatus(row.status, &domain), row.code);
        EXPECT_TRUE(TQEqual(domain, row.domain));
        OwnedError below, error;
        *below.out() = _TQCreateError(kTQPOSIXErrorDomain, EIO, nullptr, nullptr);
        EXPECT_FALSE(_TQCreateErrorForStatus(error.out(), row.status, "why", below.get()));
        for (TQError *made : {error.get(), _TQErrorForStatus(row.status, String("why").get(), below.get())}) {
            EXPECT_TRUE(TQEqual(TQErrorGetDomain(made), row.domain));
            EXPECT_EQ(TQErrorGetCode(made), row.code);
            EXPECT_EQ(Text(Ref<TQString>::Adopt(TQErrorCopyDescription(made)).get()), "why");
            EXPECT_EQ(TQErrorGetUnderlying(made), below.get());
            EXPECT_EQ(TQErrorGetStatus(made), row.back);
        }
    }
    EXPECT_THAT(CapturedLog::Take(), ElementsAre("3 SHOULD NOT HAPPEN", "3 SHOULD NOT HAPPEN")) << "only 113 is lost";
}

TEST(StatusCodes, ThatMakeNoErrorStoreNull)
{
    const CapturedLog log;
    for (const int32_t status : {100, 42, -1, 114}) {
        SCOPED_TRACE(status);
        const Ref<TQError> before = Ref<TQError>::Adopt(_TQCreateError(kTQPOSIXErrorDomain, 1, "old", nullptr));
        TQError *error = before.get();
        EXPECT_FALSE(_TQCreateErrorForStatus(&error, status, "why", nullptr));
        EXPECT_EQ(error, nullptr);
        EXPECT_EQ(_TQErrorForStatus(status, String("why").get(), nullptr), nullptr);
        const std::string line = "3 Unknown status code encountered: " + std::to_string(status);
        EXPECT_THAT(CapturedLog::Take(),
                    status == 100 ? testing::Matcher<std::vector<std::string>>(IsEmpty()) : ElementsAre(line, line));
        errno = EDOM;
        EXPECT_FALSE(_TQCreateErrorForStatus(nullptr, status, "why", nullptr));
        EXPECT_FALSE(_TQCreateErrorUseErrno(nullptr, ENOENT, "why"));
        EXPECT_THAT(CapturedLog::Take(), IsEmpty()) << "nobody wants to know";
        EXPECT_EQ(errno, EDOM);
    }
}

TEST(StatusCodes, OfSystemErrorNumbers)
{
    const std::map<int, int32_t> listed = {
        {EPERM, 108},  {ENOENT, 104},       {EACCES, 108},    {EEXIST, 106}, {EXDEV, 104},   {ENOTDIR, 104},
        {EISDIR, 104}, {ETXTBSY, 108},      {ENOSPC, 109},    {EROFS, 111},  {ERANGE, 109},  {ENOTSUP, 107},
        {ELOOP, 104},  {ENAMETOOLONG, 104}, {ENOTEMPTY, 104}, {EDQUOT, 109}, {ENODATA, 112}, {EOPNOTSUPP, 107}};
    const DeferredScope scope;
    for (int number = -1; number < 140; ++number) {
        SCOPED_TRACE(number);
        const auto found = listed.find(number);
        const int32_t status = found == listed.end() ? 101 : found->second;
        EXPECT_EQ(TQGetStatusForErrno(number), status);
        OwnedError error;
        EXPECT_FALSE(_TQCreateErrorUseErrno(error.out(), number, "why"));
        for (TQError *made : {error.get(), _TQErrorForErrno(number, String("why").get())}) {
            EXPECT_EQ(TQErrorGetStatus(made), status == 112 ? 105 : status);
            EXPECT_EQ(Text(Ref<TQString>::Adopt(TQErrorCopyDescription(made)).get()), "why");
            TQError *below = TQErrorGetUnderlying(made);
            EXPECT_TRUE(TQEqual(TQErrorGetDomain(below), kTQPOSIXErrorDomain));
            EXPECT_EQ(TQErrorGetCode(below), number);
            EXPECT_EQ(Text(Ref<TQString>::Adopt(TQErrorCopyDescription(below)).get()), strerror(number));
        }
    }
}

TEST(ErrorStatus, OfAnErrorThatIsNotOursIsZeroAndSaid)
{
    const DeferredScope scope;
    const CapturedLog log(3);
    const std::pair<TQString *, intptr_t> unknown[] = {{kTQLibraryErrorDomain, -1},   {kTQLibraryErrorDomain, 4},
                                                       {kTQLibraryErrorDomain, 8},    {kTQLibraryErrorDomain, 11},
                                                       {kTQPOSIXErrorDomain, 2},      {kTQApplicationErrorDomain, 641},
                                                       {kTQApplicationErrorDomain, 1}};
    for (const auto &[domain, code] : unknown) {
        SCOPED_TRACE(Text(domain) + " " + std::to_string(code));
        const Ref<TQError> error = Ref<TQError>::Adopt(_TQCreateError(domain, code, "m", nullptr));
        EXPECT_EQ(TQErrorGetStatus(error.get()), 0);
        EXPECT_THAT(CapturedLog::Take(), ElementsAre("3 SHOULD NOT HAPPEN"));
    }
    EXPECT_EQ(TQErrorGetStatus(_TQError(0, String("m").get(), nullptr)), 100);
    EXPECT_EQ(TQErrorGetStatus(_TQError(7, String("m").get(), nullptr)), 102);
    EXPECT_EQ(TQErrorGetStatus(nullptr), 0);
    const CapturedLog silent(2);
    EXPECT_EQ(TQErrorGetStatus(_TQError(4, String("m").get(), nullptr)), 0);
    EXPECT_FALSE(_TQErrorForStatus(42, String("m").get(), nullptr));
    EXPECT_THAT(CapturedLog::Take(), IsEmpty());
}

// A path may be longer than a message: what is cut there must not cost the caller the error.
TEST(ErrorDescription, IsCutBetweenCharactersAndMissesOnlyForWhatIsNotUTF8)
{
    EXPECT_EQ(_TQCreateError(kTQLibraryErrorDomain, 1, "\xff", nullptr), nullptr);
    const TempDirectory directory;
    disk::Write(directory / "file", "");
    for (int shift = 0; shift < 4; ++shift) {
        SCOPED_TRACE(shift);
        std::string path = directory / "file/" + std::string(static_cast<size_t>(shift), 'a');
        while (path.size() < 1100) path += "\xF0\x9F\x93\x84";
        OwnedError error;
        EXPECT_FALSE(_RemoveTree(path.c_str(), 0, error.out()));
        ASSERT_NE(error.get(), nullptr);
        EXPECT_EQ(error.status(), kTQStatusBadPath);
        EXPECT_GT(error.description().size(), 1015U);
        EXPECT_LT(error.description().size(), 1024U);
    }
    OwnedError error;
    EXPECT_FALSE(_RemoveTree((directory / "file/\xff").c_str(), 0, error.out()));
    EXPECT_EQ(error.get(), nullptr) << "there is no text that could say it";
}
