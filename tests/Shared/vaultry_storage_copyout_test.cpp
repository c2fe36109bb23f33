#include "support/Identity.h"
#include "support/Reports.h"

#include <vaultry/archive.h>
#include <vaultry/filesystem.h>

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>

namespace {

const std::string kStore = "com.corvane.vaultry.", kByte = kStore + "orig_perms_v1";

class CopyingOut : public AsEach {
protected:
    // An item as the store keeps it.
    std::string Stored(const std::string &path, mode_t mode, const std::optional<std::string> &byte,
                       bool folder = false)
    {
        folder ? disk::MakeDirectory(path) : disk::Write(path, "kept");
        for (const char *name : {"info", "origdisplayname", "gen_options"})
            disk::SetAttribute(path, kStore + name, "x");
        disk::SetAttribute(path, "com.example.own", "x");
        if (byte) disk::SetAttribute(path, kByte, *byte);
        chmod(path.c_str(), mode);
        return path;
    }
    bool CopyOut(const std::string &from, TQError **error = nullptr)
    {
        EXPECT_TRUE(_RemoveTree(out.c_str(), 0, nullptr));
        outMode = 0xffff;
        outFlags = 0xffffffff;
        return TQCopyOutGeneration(from.c_str(), out.c_str(), &outMode, &outFlags, error);
    }
    void ExpectOnlyOwnAttribute(const std::string &path)
    {
        for (const char *name : {"info", "origdisplayname", "gen_options", "orig_perms_v1"})
            EXPECT_FALSE(disk::Attribute(path, kStore + name)) << path << " " << name;
        EXPECT_TRUE(disk::Attribute(path, "com.example.own")) << path;
    }

    TempDirectory directory;
    const std::string out = directory / "out";
    uint16_t outMode = 0;
    uint32_t outFlags = 0;
};
INSTANTIATE_AS_EACH(CopyingOut);

TEST_P(CopyingOut, GivesBackWhatTheByteRecords)
{
    const struct {
        mode_t stored;
        std::optional<std::string> byte;
        bool folder;
        mode_t restored;
        uint32_t flags;
    } rows[] = {{0444, "\x04", false, 0644, 0},       {0444, std::string(1, '\0'), false, 0444, 0},
                {0444, std::nullopt, false, 0644, 0}, {0444, "\x1c", false, 0666, 0},
                {04555, "\x08", false, 04575, 0},     {0400, "\x10", false, 0402, 0},
                {0555, "\x04", true, 0755, 0},        {02555, "\x0c", true, 02775, 0},
                {0500, std::nullopt, true, 0700, 0},  {0555, std::string(1, '\0'), true, 0555, 0},
                {0444, "\x07", false, 0644, 6},       {0555, "\x06", true, 0755, 4}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << std::oct << row.stored << " " << testing::PrintToString(row.byte));
        if (row.flags != 0 && !directory.CanSetImmutable()) continue;
        const std::string generation = Stored(directory / "generation", row.stored, row.byte, row.folder);
        OwnedError error;
        EXPECT_TRUE(CopyOut(generation, error.out())) << error.description();
        EXPECT_EQ(outMode & 07777U, row.restored);
        EXPECT_EQ(S_ISDIR(outMode), row.folder);
        EXPECT_EQ(outFlags, row.flags);
        EXPECT_EQ(disk::Mode(out), row.restored | (row.folder ? 0222U : 0U)) << "the top item is left changeable";
        EXPECT_EQ(disk::Flags(out), 0);
        ExpectOnlyOwnAttribute(out);
        EXPECT_EQ(disk::Mode(generation), row.stored);
        EXPECT_TRUE(_RemoveTree(generation.c_str(), 0, nullptr));
    }
}

TEST_P(CopyingOut, TreatsEveryItemOfATree)
{
    const std::string generation = Stored(directory / "generation", 0755, "\x04", true);
    Stored(generation + "/file", 0444, "\x04");
    Stored(generation + "/._file", 0444, "\x04");
    Stored(generation + "/folder", 0555, "\x0c", true);
    const bool immutable = directory.CanSetImmutable();
    if (immutable) Stored(generation + "/locked", 0444, "\x03");
    chmod(generation.c_str(), 0555);
    EXPECT_TRUE(CopyOut(generation));
    EXPECT_FALSE(disk::Exists(out + "/._file"));
    EXPECT_EQ(disk::Mode(out + "/file"), 0644U);
    EXPECT_EQ(disk::Mode(out + "/folder"), 0775U);
    for (const char *name : {"/file", "/folder"}) ExpectOnlyOwnAttribute(out + name);
    EXPECT_EQ(disk::Flags(out + "/locked"), immutable ? FS_IMMUTABLE_FL | FS_APPEND_FL : 0);
}

TEST_P(CopyingOut, FailsOnWhatItCannotRestore)
{
    const std::string odd = Stored(directory / "odd", 0444, "\x04\x04"),
                      locked = Stored(directory / "locked", 0444, "\x01");
    const auto copy = [&](const std::string &from) {
        return [this, from](TQError **error) { return CopyOut(from, error) || outMode != 0 || outFlags != 0; };
    };
    ExpectRows(
        {{"two bytes", System(ERANGE, "Failed to retrieve original perms from xattr on item \"$/out\""), copy(odd)},
         {"nothing there", System(ENOENT, "duplix callback got an error what=0 stage=3 src=$/missing dst=$/out"),
          copy(directory / "missing")}},
        directory.path());
    if (GetParam() == As::User)
        ExpectRows({{"a flag that its user may not set", System(EPERM, "chflags($/out) failed"), copy(locked)}},
                   directory.path());
    const std::string there = disk::Write(directory / "there", "theirs");
    EXPECT_FALSE(TQCopyOutGeneration(locked.c_str(), there.c_str(), &outMode, &outFlags, nullptr));
    EXPECT_EQ(disk::Read(there), "theirs");
}

} // namespace
