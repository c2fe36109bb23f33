#include "Platform/duplix.h"

#include "Platform/UniqueFd.h"
#include "support/Tests.h"
#include "support/Volumes.h"

#include <functional>
#include <sys/mount.h>

namespace {

namespace what = duplix_what;
namespace stage = duplix_stage;

// A client that keeps what it heard, as "what.stage path", and answers as the test wants.
struct Client {
    std::function<int(const std::string &heard)> answer = {};
    std::string root = {}, heard = {};
    uint64_t lastProgress = 0, longestStep = 0;
    int steps = 0;

    static int Hear(int what, int stage, DuplixState *state, const char *source, const char *, void *context)
    {
        auto *self = static_cast<Client *>(context);
        std::string word = std::to_string(what) + "." + std::to_string(stage) + (source + self->root.size());
        if (stage == stage::Error) word += std::string(":") + strerrorname_np(errno);
        self->heard += (self->heard.empty() ? "" : " ") + word;
        if (stage == stage::Progress) {
            ++self->steps;
            self->longestStep = std::max(self->longestStep, state->bytesCopied - self->lastProgress);
            self->lastProgress = state->bytesCopied;
        }
        errno = stage == stage::Error ? EIO : 0; // a client may leave anything here
        return self->answer ? self->answer(word) : 0;
    }
};

int Copy(const std::string &from, const std::string &to, Client *client = nullptr)
{
    errno = 0;
    if (client) client->root = from;
    return platform::duplix(from.c_str(), to.c_str(), client ? Client::Hear : nullptr, client) == 0 ? 0 : errno;
}

void ExpectCopied(const std::string &from, const std::string &to, unsigned what = Snapshot::kWhole | Snapshot::kHoles)
{
    EXPECT_TRUE(Same(Snapshot::Of(from, what), Snapshot::Of(to, what)));
}

// What people have, and what they should not have but do.
std::string MakeNasty(const std::string &path)
{
    EXPECT_TRUE(Shell(disk::MakePackage(path), R"sh(
        ln -s run link; ln -s no/such/place dangling; echo x > "$(printf 'new\nline \377\376')"
        echo s > setuid; echo c > closed; chmod 6755 setuid; chmod 0400 closed; mkdir -m 1777 sticky
        mkdir guarded; echo i > guarded/inside; chmod 0440 guarded/inside; setfacl -d -m u:4242:rwx,g:4243:r guarded
        setfattr -n user.empty Data/Nested; chmod 0555 Data/Nested
        touch -h -d '1969-12-31 12:00:00.123456789 UTC' dangling sticky closed)sh"));
    EXPECT_TRUE(geteuid() != 0 || Shell(path, "chown -h 12345:23456 link setuid sticky guarded; chmod 6755 setuid"));
    (void)disk::SetFlags(path + "/setuid", FS_IMMUTABLE_FL | FS_NODUMP_FL);
    (void)disk::SetFlags(path + "/guarded", FS_APPEND_FL);
    return path;
}

struct Copies : InDirectory {};
struct CopiesOnVolumes : OnEachVolume {};

} // namespace

// Everything comes over; what the destination's directory hands down does not come alive.
TEST_P(CopiesOnVolumes, ATreeIsTheSameTree)
{
    const std::string source = MakeNasty(directory() / "source");
    const std::string shared = disk::MakeDirectory(directory() / "shared");
    ASSERT_TRUE(Shell(shared, "setfacl -d -m u:777:rwx . && chattr +d ."));
    for (const auto &[from, to] : {std::pair{source, shared + "/tree"}, {source + "/Data/sparse", shared + "/file"}}) {
        EXPECT_EQ(Copy(from, to), 0);
        ExpectCopied(from, to);
    }
    EXPECT_TRUE(Shell(shared, "cd tree && test $(readlink link) = run && test $(readlink dangling) = no/such/place"));

    // Another type of volume: the same, but for where holes begin.
    for (const char *type : {"tmpfs", "ext4"}) {
        const TempDirectory other(VolumeOfType(type).path);
        EXPECT_EQ(Copy(source, other / "copy"), 0) << type;
        ExpectCopied(source, other / "copy", Snapshot::kWhole);
    }
}

// Data of every shape; where it can't be cloned the client still hears of each 4 MiB.
TEST_P(CopiesOnVolumes, DataAndHolesStayAsTheyAre)
{
    const std::tuple<const char *, const char *, int> rows[] = {
        {"one hole", "truncate -s 3M f", 1},
        {"one byte", "printf x > f", 1},
        {"two steps", "head -c 5M /dev/zero > f", 2},
        {"between holes", "truncate -s 3M f; for at in 16 32; do dd if=/dev/urandom bs=64k count=1 seek=$at; done", 3},
        {"ends in data", "truncate -s 2M f; echo x >> f", 1},
        {"small with a hole", "truncate -s 60000 f; printf x | dd", 2},
    };
    for (const auto &[what, make, steps] : rows)
        for (const bool compressed : {false, true}) {
            SCOPED_TRACE(what + std::string(compressed ? ", compressed" : ""));
            ASSERT_TRUE(Shell(directory().path(),
                              "dd() { command dd of=f conv=notrunc \"$@\"; }; : > f; " + std::string(make)));
            const std::string source = directory() / "f";
            if (compressed && !disk::SetFlags(source, FS_COMPR_FL)) continue;
            Client client;
            EXPECT_EQ(Copy(source, directory() / "copy", &client), 0);
            ExpectCopied(source, directory() / "copy");
            EXPECT_EQ(client.steps, !compressed && (Is("xfs") || Is("btrfs")) ? 1 : steps);
            EXPECT_LE(client.steps == 1 ? 0 : client.longestStep, 4U << 20);

            const UniqueFd from(open(source.c_str(), O_RDONLY | O_CLOEXEC));
            const UniqueFd to(open(disk::Write(directory() / "second", std::string(100000, 'y')).c_str(), O_RDWR));
            EXPECT_EQ(platform::fduplix(from.get(), to.get()), 0);
            ExpectCopied(source, directory() / "second");
            ASSERT_TRUE(Shell(directory().path(), "rm f copy second"));
        }
}

// A volume that holds neither attributes nor lists must not lose them unnoticed, nor widen what a list granted.
TEST_P(CopiesOnVolumes, NoAttributeIsLostSilently)
{
    const TempDirectory plain;
    ASSERT_TRUE(Shell(directory().path(), "echo x > with; setfattr -n user.a with; (umask 077; echo x > listed)"
                                          " && setfacl -m u:4242:rw,g::- listed && mount -t ramfs x " +
                                              plain.path()));
    EXPECT_EQ(Copy(directory() / "with", plain / "copy"), ENOTSUP);
    Client client;
    EXPECT_EQ(Copy(directory() / "with", plain / "second", &client), 0);
    EXPECT_EQ(client.heard, "1.1 4.4 5.1 5.3:EOPNOTSUPP 1.2");
    client = Client{[](const std::string &heard) { return heard == "5.1" ? int{duplix_answer::Skip} : 0; }};
    EXPECT_EQ(Copy(directory() / "with", plain / "third", &client), 0);
    EXPECT_EQ(client.heard, "1.1 4.4 5.1 1.2") << "tried what the client does not want";
    EXPECT_EQ(Copy(directory() / "listed", plain / "listed"), 0);
    EXPECT_EQ(disk::Mode(plain / "listed"), 0600U);
    ASSERT_EQ(umount2(plain.path().c_str(), MNT_DETACH), 0);
}
INSTANTIATE_ON_EACH_VOLUME(CopiesOnVolumes);

// An ordinary user can't give files away, but can copy them; no rights of the owner's come along.
TEST_P(Copies, AStrictUmaskAndForeignFilesStopNobody)
{
    const std::string source = MakeNasty(directory / "source");
    const mode_t before = umask(0777);
    EXPECT_EQ(Copy(source, directory / "copy"), 0);
    umask(before);
    ExpectCopied(source, directory / "copy");

    const char *foreign = "/bin/su"; // root's, and set-user-id
    if (isRoot || access(foreign, R_OK) != 0) return;
    EXPECT_EQ(Copy(foreign, directory / "su"), 0);
    EXPECT_EQ(disk::Mode(directory / "su"), disk::Mode(foreign) & ~06000U);
}

// The source changes while it is copied: what was there is copied, and the copy ends.
TEST_P(Copies, AFileThatChangesIsCopiedAsFound)
{
    const std::string source = directory / "source";
    for (const auto &[becomes, copied] : {std::pair{0, 4}, {5, 5}, {40, 10}}) {
        disk::Write(source, std::string(10 << 20, 'x'));
        ASSERT_TRUE(disk::SetFlags(source, FS_COMPR_FL)); // read in steps wherever we are
        Client client{[&, size = off_t{becomes} << 20](const std::string &heard) {
            return heard == "4.4" ? truncate(source.c_str(), size) : 0;
        }};
        EXPECT_EQ(Copy(source, directory / "copy", &client), 0);
        EXPECT_EQ(disk::Read(directory / "copy"), std::string(static_cast<size_t>(copied) << 20, 'x'));
        unlink((directory / "copy").c_str());
    }
}
INSTANTIATE_AS_EACH(Copies);
