#include "support/Tests.h"

namespace {

const std::string kStore = "com.corvane.vaultry.";

struct CopyingOut : InDirectory {
    // An item as the store keeps it.
    std::string Stored(const std::string &name, mode_t mode, const std::optional<std::string> &byte,
                       bool folder = false)
    {
        const std::string path = folder ? Folder(name) : File(name);
        for (const char *each : {"info", "origdisplayname", "gen_options"})
            disk::SetAttribute(path, kStore + each, "x");
        disk::SetAttribute(path, "com.example.own", "x");
        if (byte) disk::SetAttribute(path, kStore + "orig_perms_v1", *byte);
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
    void ExpectOut(const std::string &item, mode_t mode, int flags)
    {
        SCOPED_TRACE(item);
        EXPECT_EQ(disk::Mode(out + item), mode);
        EXPECT_EQ(disk::Flags(out + item), flags);
        for (const char *name : {"info", "origdisplayname", "gen_options", "orig_perms_v1"})
            EXPECT_FALSE(disk::Attribute(out + item, kStore + name)) << name;
        EXPECT_TRUE(disk::Attribute(out + item, "com.example.own"));
    }

    const std::string out = At("out");
    uint16_t outMode = 0;
    uint32_t outFlags = 0;
};
INSTANTIATE_AS_EACH(CopyingOut);

TEST_P(CopyingOut, GivesBackWhatTheByteRecords)
{
    const std::string zero(1, '\0');
    const struct {
        mode_t stored;
        std::optional<std::string> byte;
        bool folder;
        mode_t restored;
        uint32_t flags;
    } rows[] = {
        {0444, "\x04", false, 0644, 0},      {0444, zero, false, 0444, 0},   {0444, std::nullopt, false, 0644, 0},
        {04555, "\x08", false, 04575, 0},    {0400, "\x10", false, 0402, 0}, {02555, "\x0c", true, 02775, 0},
        {0500, std::nullopt, true, 0700, 0}, {0555, zero, true, 0555, 0},    {0444, "\x07", false, 0644, 6}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << std::oct << row.stored << " " << testing::PrintToString(row.byte));
        if (row.flags != 0 && !canFlag) continue;
        const std::string generation = Stored("generation", row.stored, row.byte, row.folder);
        OwnedError error;
        EXPECT_TRUE(CopyOut(generation, error.out())) << error.description();
        EXPECT_EQ(outMode, row.restored | (row.folder ? S_IFDIR : S_IFREG));
        EXPECT_EQ(outFlags, row.flags);
        ExpectOut("", row.restored | (row.folder ? 0222U : 0U), 0); // the top item is left changeable
        EXPECT_EQ(disk::Mode(generation), row.stored);
        EXPECT_TRUE(_RemoveTree(generation.c_str(), 0, nullptr));
    }
}

TEST_P(CopyingOut, TreatsEveryItemOfATreeAndFailsOnWhatItCannotRestore)
{
    const std::string generation = Stored("generation", 0755, "\x04", true);
    Stored("generation/file", 0444, "\x04");
    Stored("generation/._file", 0444, "\x04");
    Stored("generation/folder", 0555, "\x0c", true);
    if (canFlag) Stored("generation/locked", 0444, "\x03");
    chmod(generation.c_str(), 0555);
    EXPECT_TRUE(CopyOut(generation));
    EXPECT_FALSE(disk::Exists(out + "/._file"));
    ExpectOut("/file", 0644, 0);
    ExpectOut("/folder", 0775, 0);
    if (canFlag) ExpectOut("/locked", 0444, FS_IMMUTABLE_FL | FS_APPEND_FL);

    const std::string odd = Stored("odd", 0444, "\x04\x04"), locked = Stored("locked", 0444, "\x01"),
                      there = File("there", "theirs");
    Expect({{System(ERANGE, "Failed to retrieve original perms from xattr on item \"$/out\""),
             CALL(CopyOut(odd, why) || outMode || outFlags)},
            {System(EEXIST, "duplix callback got an error what=1 stage=3 src=$/odd dst=$/there"),
             CALL(TQCopyOutGeneration(odd.c_str(), there.c_str(), &outMode, &outFlags, why))}});
    EXPECT_EQ(disk::Read(there), "theirs");
    if (!canFlag) Expect({{System(EPERM, "chflags($/out) failed"), CALL(CopyOut(locked, why))}});
}

} // namespace
