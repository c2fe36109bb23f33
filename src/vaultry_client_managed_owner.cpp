#include "vaultry_client_managed_owner.h"

#include "Platform/FileStatus.h"
#include "Platform/Machine.h"
#include "Platform/Volume.h"
#include "Shared/vaultry_internal_failure.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <sys/file.h>

namespace {

constexpr mode_t kOwnerFileMode = 0600;
constexpr const char *kWords[] = {"copy", "move", "remove", "copy-out", "restore"}; // for Work, in its order
constexpr char kFirstLine[] = "vaultry owner 1\n", kExchangeLine[] = "exchange\n", kLastLine[] = "end\n";

// A path may hold any byte except zero, so its length stands before it. A restore notes its exchange when its copy is
// staged. It notes it again when the copy has to be copied across, when the volume can't exchange, and when its way
// back fails.
constexpr size_t kNoteCapacity = size_t{7} * PATH_MAX;
constexpr size_t kWordsCapacity = 1024; // the words and numbers of one part
constexpr size_t kMostExchanges = 4;
static_assert(PATH_MAX + kWordsCapacity + sizeof(BroughtInfo) + sizeof(BroughtName) +
                  kMostExchanges * (3 * PathBuffer::kCapacity + kWordsCapacity) <=
              kNoteCapacity);

class NoteText {
public:
    [[gnu::format(printf, 2, 3)]] void Add(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        const int added = vsnprintf(text_ + length_, sizeof text_ - length_, format, arguments);
        va_end(arguments);
        length_ += added > 0 ? static_cast<size_t>(added) : 0; // every part is bounded, and all of them fit
    }
    void AddPath(const char *key, const char *path) { Add("%s %zu\n%s\n", key, strlen(path), path); }
    template <size_t capacity> void AddAttribute(const char *key, const BroughtAttribute<capacity> &brought)
    {
        if (!brought.isKnown) return;
        Add("%s %d %zu\n", key, brought.isThere ? 1 : 0, brought.length);
        memcpy(text_ + length_, brought.bytes, brought.length);
        length_ += brought.length;
        Add("\n");
    }
    void AddItem(const char *key, const ItemMark &mark)
    {
        Add("%s %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", key,
            mark.id.device, mark.id.inode, static_cast<uint64_t>(mark.born),
            static_cast<uint64_t>(mark.bornNanoseconds), mark.size, static_cast<uint64_t>(mark.modified),
            static_cast<uint64_t>(mark.modifiedNanoseconds));
    }

    // Writes it at `*end`, which then is where it ends: a volume may be late to tell a file's size. In one call, since
    // a note that is not whole is not believed.
    bool WriteTo(int fd, off_t *end) const
    {
        const ssize_t written = pwrite(fd, text_, length_, *end);
        if (written == static_cast<ssize_t>(length_)) {
            *end += written;
            return true;
        }
        if (written >= 0) errno = ENOSPC;
        return false;
    }

private:
    char text_[kNoteCapacity];
    size_t length_ = 0;
};

// Reads what NoteText wrote, and trusts none of it.
class NoteReader {
public:
    NoteReader(const char *text, size_t length) : at_(text), end_(text + length) {}

    bool IsAt(const char *text) const
    {
        const size_t length = strlen(text);
        return static_cast<size_t>(end_ - at_) >= length && memcmp(at_, text, length) == 0;
    }

    bool Take(const char *text)
    {
        const bool isThere = IsAt(text);
        if (isThere) at_ += strlen(text);
        return isThere;
    }

    // Takes the word after `key`, up to the end of the line.
    template <size_t size> bool TakeWord(const char *key, char (&word)[size])
    {
        if (!Take(key) || !Take(" ")) return false;
        const void *const newline = memchr(at_, '\n', static_cast<size_t>(end_ - at_));
        const size_t length = newline ? static_cast<size_t>(static_cast<const char *>(newline) - at_) : size;
        if (length >= size || memchr(at_, '\0', length)) return false;
        memcpy(word, at_, length);
        word[length] = '\0';
        at_ += length + 1;
        return true;
    }

    template <class... Numbers> bool TakeNumbers(const char *key, Numbers *...numbers)
    {
        char word[192];
        if (!TakeWord(key, word)) return false;
        const char *next = word;
        return (TakeNumber(next, numbers) && ...) && *next == '\0';
    }

    bool TakePath(const char *key, char *path, size_t capacity)
    {
        uint64_t length = 0;
        if (!TakeNumbers(key, &length) || length >= capacity || static_cast<uint64_t>(end_ - at_) <= length)
            return false;
        if (memchr(at_, '\0', length) || at_[length] != '\n') return false;
        memcpy(path, at_, length);
        path[length] = '\0';
        at_ += length + 1;
        return true;
    }

    // A note has none if nothing is known of it, or if an earlier version made it.
    template <size_t capacity> bool TakeAttribute(const char *key, BroughtAttribute<capacity> *brought)
    {
        uint64_t count = 0, length = 0;
        if (!IsAt(key)) return true;
        if (!TakeNumbers(key, &count, &length) || count > 1 || length > (count == 0 ? 0 : capacity) ||
            static_cast<uint64_t>(end_ - at_) <= length || at_[length] != '\n')
            return false;
        memcpy(brought->bytes, at_, length);
        at_ += length + 1;
        brought->isKnown = true;
        brought->isThere = count == 1;
        brought->length = length;
        return true;
    }

private:
    template <class Number> static bool TakeNumber(const char *&next, Number *number)
    {
        if (*next == ' ') ++next;
        if (*next < '0' || *next > '9') return false;
        char *end = nullptr;
        errno = 0;
        const unsigned long long read = strtoull(next, &end, 10);
        next = end;
        *number = static_cast<Number>(read);
        return errno == 0 && static_cast<unsigned long long>(*number) == read;
    }

    const char *at_;
    const char *end_;
};

bool ReadWork(NoteReader &reader, Work *work)
{
    char word[16];
    if (!reader.TakeWord("work", word)) return false;
    for (size_t i = 0; i < std::size(kWords); ++i)
        if (strcmp(word, kWords[i]) == 0) {
            *work = static_cast<Work>(i);
            return true;
        }
    return false;
}

bool ReadItem(NoteReader &reader, const char *key, ItemMark *mark)
{
    return reader.TakeNumbers(key, &mark->id.device, &mark->id.inode, &mark->born, &mark->bornNanoseconds, &mark->size,
                              &mark->modified, &mark->modifiedNanoseconds);
}

// A note has none if nothing is known, or if an earlier version made it.
bool ReadOptions(NoteReader &reader, BroughtOptions *options)
{
    if (!reader.IsAt("options ")) return true;
    uint64_t count = 0;
    options->isKnown = reader.TakeNumbers("options", &count, &options->word) && count <= 1;
    options->isThere = count == 1;
    return options->isKnown;
}

bool ReadNote(NoteReader &reader, OwnerNote *note)
{
    return reader.Take(kFirstLine) && ReadWork(reader, &note->work) && reader.TakeWord("machine", note->machine) &&
           reader.TakeWord("boot", note->boot) && (!reader.IsAt("host ") || reader.TakeWord("host", note->host)) &&
           reader.TakeNumbers("process", &note->process) && reader.TakeNumbers("since", &note->since) &&
           reader.TakeNumbers("top", &note->topMode, &note->topFlags, &note->top.device, &note->top.inode) &&
           ReadOptions(reader, &note->topOptions) && reader.TakeAttribute("info", &note->topInfo) &&
           reader.TakeAttribute("name", &note->topName) && ReadItem(reader, "folder", &note->folder) &&
           reader.TakePath("document", note->document, sizeof note->document) && reader.Take(kLastLine);
}

bool ReadExchange(NoteReader &reader, PlannedExchange *exchange)
{
    const auto takePath = [&](const char *key, PathBuffer &path) {
        return reader.TakePath(key, path.data(), PathBuffer::kCapacity);
    };
    const auto takeItem = [&](const char *key, ItemMark &mark) { return ReadItem(reader, key, &mark); };
    return reader.Take(kExchangeLine) && takeItem("document", exchange->document) && takeItem("copy", exchange->copy) &&
           takeItem("placeholder", exchange->placeholder) && takeItem("folder", exchange->folder) &&
           takePath("waiting", exchange->waiting) && takePath("aside", exchange->aside) &&
           takePath("restored", exchange->restored) && reader.Take(kLastLine);
}

// The last one counts: a restore notes its exchange again when it learns more.
void ReadExchanges(NoteReader &reader, OwnerNote *note)
{
    PlannedExchange exchange;
    while (ReadExchange(reader, &exchange)) {
        note->exchange = exchange;
        note->hasExchange = true;
    }
}

void ReadOwnerFile(int fd, FoundOwner *found)
{
    char text[kNoteCapacity];
    const ssize_t length = pread(fd, text, sizeof text, 0);
    // A file system that has recorded the size, but not written the bytes, gives zeros.
    found->isBlank = length >= 0 && std::all_of(text, text + length, [](char byte) { return byte == '\0'; });
    if (length <= 0) return;
    NoteReader reader(text, static_cast<size_t>(length));
    found->readable = ReadNote(reader, &found->note);
    if (found->readable) ReadExchanges(reader, &found->note);
}

// Reads the file under the lock, since otherwise its owner could note more in it meanwhile. Where locks may stay on
// their host, a free lock says nothing about other hosts. Nor does it about another boot of this machine, which may be
// that of a clone with the same name.
OwnerLife ReadUnderLock(int fd, FoundOwner *found)
{
    int result = 0;
    do result = flock(fd, LOCK_SH | LOCK_NB);
    while (result != 0 && errno == EINTR);
    const int why = result != 0 ? errno : 0;
    TQFileStatus status;
    if (platform::GetStatusOfFd(fd, &status) == 0) found->written = status.modificationTime;
    ReadOwnerFile(fd, found);
    if (why != 0) return why == EWOULDBLOCK ? OwnerLife::Alive : OwnerLife::Doubtful;
    (void)flock(fd, LOCK_UN);
    return platform::VolumeHonoursFlush(fd) || found->note.IsOfThisStart() ? OwnerLife::Dead : OwnerLife::Doubtful;
}

// Waits for a process that is just testing whether the file is locked.
bool LockForLife(int fd)
{
    int result = 0;
    do result = flock(fd, LOCK_EX);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

// Root gives the file to the staging area's owner, since a file of anybody else is not believed.
bool GiveToAreaOwner(int fd, const TQFileStatus &made, uint32_t areaOwner)
{
    if (made.owner == areaOwner || geteuid() != 0) return true;
    return areaOwner == 0 || fchown(fd, areaOwner, static_cast<gid_t>(-1)) == 0 || errno == EPERM || errno == EINVAL;
}

} // namespace

ItemMark ItemMark::Of(const TQFileStatus &status)
{
    ItemMark mark;
    mark.id = ItemId::Of(status);
    if (status.hasBirthTime) {
        mark.born = status.birthTime.tv_sec;
        mark.bornNanoseconds = status.birthTime.tv_nsec;
    }
    mark.size = status.size;
    mark.modified = status.modificationTime.tv_sec;
    mark.modifiedNanoseconds = status.modificationTime.tv_nsec;
    return mark;
}

bool ItemMark::IsOf(const TQFileStatus &status, bool deviceCounts) const
{
    const ItemMark other = Of(status);
    return id.inode != 0 && id.inode == other.id.inode && (!deviceCounts || id.device == other.id.device) &&
           born == other.born && bornNanoseconds == other.bornNanoseconds;
}

bool ItemMark::IsFolder(const TQFileStatus &status, bool deviceCounts) const
{
    return id.inode != 0 && id.inode == status.inode && (!deviceCounts || id.device == status.device);
}

bool ItemMark::IsUnchanged(const TQFileStatus &status) const
{
    const ItemMark other = Of(status);
    return !S_ISREG(status.mode) ||
           (size == other.size && modified == other.modified && modifiedNanoseconds == other.modifiedNanoseconds);
}

const char *WordOf(Work work)
{
    return kWords[static_cast<size_t>(work)];
}

OwnerNote OwnerNote::Of(Work work, const char *document)
{
    OwnerNote note;
    note.work = work;
    (void)snprintf(note.document, sizeof note.document, "%s", document ? document : "");
    const platform::Machine &machine = platform::ThisMachine();
    memcpy(note.machine, machine.id, sizeof note.machine);
    memcpy(note.boot, machine.boot, sizeof note.boot);
    memcpy(note.host, machine.name, sizeof note.host);
    note.process = getpid();
    note.since = time(nullptr);
    return note;
}

bool OwnerNote::IsOfThisMachine() const
{
    return strcmp(machine, platform::ThisMachine().id) == 0;
}

bool OwnerNote::IsOfThisStart() const
{
    return IsOfThisMachine() && strcmp(boot, "-") != 0 && strcmp(boot, platform::ThisMachine().boot) == 0;
}

UniqueFd _MakeOwnerFile(const Item &place, uint32_t areaOwner, const OwnerNote &note, ItemId *id, off_t *end,
                        TQError **error)
{
    NoteText text;
    text.Add("%swork %s\nmachine %s\nboot %s\nhost %s\n", kFirstLine, WordOf(note.work), note.machine, note.boot,
             note.host);
    text.Add("process %" PRId64 "\nsince %" PRId64 "\ntop %u %u %" PRIu64 " %" PRIu64 "\n", note.process, note.since,
             note.topMode, note.topFlags, note.top.device, note.top.inode);
    if (const BroughtOptions &options = note.topOptions; options.isKnown)
        text.Add("options %d %" PRIu64 "\n", options.isThere ? 1 : 0, options.word);
    text.AddAttribute("info", note.topInfo);
    text.AddAttribute("name", note.topName);
    text.AddItem("folder", note.folder);
    text.AddPath("document", note.document);
    text.Add("%s", kLastLine);

    constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd fd(openat(place.directory, place.name, kFlags, kOwnerFileMode));
    TQFileStatus made;
    // The lock comes before the first byte, so a process that finds the file unlocked then finds it empty. The mode
    // does not depend on the umask.
    if (fd && LockForLife(fd.get()) && platform::GetStatusOfFd(fd.get(), &made) == 0 &&
        ((made.mode & 07777) == kOwnerFileMode || fchmod(fd.get(), kOwnerFileMode) == 0) &&
        GiveToAreaOwner(fd.get(), made, areaOwner) && text.WriteTo(fd.get(), end)) {
        *id = ItemId::Of(made);
        return fd;
    }
    Failure(error).Errno("Failed to write \"%s/%s\"", place.path, place.name);
    return {};
}

bool _NoteExchange(int ownerFile, const char *path, const PlannedExchange &exchange, off_t *end, TQError **error)
{
    NoteText text;
    text.Add("%s", kExchangeLine);
    text.AddItem("document", exchange.document);
    text.AddItem("copy", exchange.copy);
    text.AddItem("placeholder", exchange.placeholder);
    text.AddItem("folder", exchange.folder);
    text.AddPath("waiting", exchange.waiting.c_str());
    text.AddPath("aside", exchange.aside.c_str());
    text.AddPath("restored", exchange.restored.c_str());
    text.Add("%s", kLastLine);
    if (text.WriteTo(ownerFile, end)) return true;
    return Failure(error).Errno("Failed to write \"%s/%s\"", path, kOwnerFileName);
}

void _ReleaseOwnerFile(UniqueFd &ownerFile)
{
    const ErrnoKeeper keeper;
    if (ownerFile) (void)flock(ownerFile.get(), LOCK_UN);
    // Whatever depended on the note was flushed when it was written. Now it only tells how old the rest may be.
    (void)ownerFile.Close();
}

void _LookForOwner(int directory, uint32_t areaOwner, FoundOwner *found)
{
    const ErrnoKeeper keeper;
    *found = {};
    const UniqueFd fd(openat(directory, kOwnerFileName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd && errno == ENOENT) return;
    found->life = OwnerLife::Doubtful;
    TQFileStatus status;
    if (!fd || platform::GetStatusOfFd(fd.get(), &status) != 0) return;
    if (!S_ISREG(status.mode) || (status.mode & 07777) != kOwnerFileMode || status.linkCount != 1 ||
        status.owner != areaOwner)
        return;
    found->life = ReadUnderLock(fd.get(), found);
}
