/* Times a process that links the library, and beside it the fewest calls that could do the same.
 *
 *     inside keep STORE DOCUMENT FIRST COUNT        adds generations numbered from FIRST, flushed as always
 *     inside keep-floor DIRECTORY DOCUMENT FIRST COUNT
 *     inside ask STORE NAME COUNT                   one record, by name
 *     inside held STORE DOCUMENT FIRST COUNT        the same as keep, but prints how long the store was locked alone
 *     inside query STORE COUNT                      all records with every field
 *     inside query-floor DIRECTORY COUNT
 *
 * Prints the nanoseconds of each turn on a line of its own, when all are done. */
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>
#include <vaultry/vaultry.h>

typedef struct {
    const char *directory; /* the store, or the directory in its place */
    const char *what;      /* a document or a name, if there is one */
    long turn;
    TQLibrary *library;
} Work;

static void Die(const char *what)
{
    perror(what);
    exit(1);
}

static void DieOf(TQError *error)
{
    TQString *why = TQErrorCopyDescription(error);
    fprintf(stderr, "%s\n", TQStringGetUTF8(why));
    exit(1);
}

static void Keep(const Work *work)
{
    TQError *error = NULL;
    TQString *name = TQStringCreateWithFormat("kept %ld", work->turn);
    TQURL *document = TQURLCreateWithFileSystemPath(work->what, false);
    if (!TQLibraryAddGenerationWithOptionsByCopyingFile(work->library, name, document, 1, &error)) DieOf(error);
    TQRelease(document);
    TQRelease(name);
}

/* When the store was locked alone, and for how long in all. */
static long heldSince, heldFor;
static int heldBy = -1;
static bool looksForLock;

static long Nanoseconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000L + now.tv_nsec;
}

/* Takes the place of the C library's for the library, too. The lock file is the one that nobody may write to. */
int flock(int fd, int operation)
{
    if (operation == LOCK_UN && fd == heldBy) {
        heldFor += Nanoseconds() - heldSince;
        heldBy = -1;
    }
    struct stat status;
    const int result = (int)syscall(SYS_flock, fd, operation);
    if (!looksForLock || result != 0 || !(operation & LOCK_EX) || fstat(fd, &status) != 0) return result;
    if ((status.st_mode & 0777) == 0400) {
        heldBy = fd;
        heldSince = Nanoseconds();
    }
    return result;
}

/* A copy under a temporary name, its protection, and what makes it durable. */
static void KeepFloor(const Work *work)
{
    static char buffer[1 << 16];
    char name[64];
    snprintf(name, sizeof name, "kept %ld", work->turn);
    const int directory = open(work->directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int from = open(work->what, O_RDONLY | O_CLOEXEC);
    const int to = openat(directory, ".new", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (directory < 0 || from < 0 || to < 0) Die("open");
    const ssize_t size = read(from, buffer, sizeof buffer);
    if (size < 0 || write(to, buffer, (size_t)size) != size) Die("copy");
    if (fsetxattr(to, "user.com.corvane.vaultry.orig_perms_v1", "\4", 1, 0) != 0) Die("fsetxattr");
    if (fchmod(to, 0444) != 0 || fsync(to) != 0 || close(to) != 0 || close(from) != 0) Die("finish");
    if (renameat(directory, ".new", directory, name) != 0 || fsync(directory) != 0) Die("rename");
    close(directory);
}

static void Ask(const Work *work)
{
    TQError *error = NULL;
    TQString *name = TQStringCreate(work->what);
    TQDictionary *record = TQLibraryCopyGenerationInfos(work->library, NULL, NULL, name, NULL, &error);
    if (!record) DieOf(error);
    TQRelease(record);
    TQRelease(name);
}

static void Query(const Work *work)
{
    TQError *error = NULL;
    TQDictionary *records = TQLibraryCopyAllGenerationsInfos(work->library, NULL, NULL, &error);
    if (!records) DieOf(error);
    TQRelease(records);
}

static void QueryFloor(const Work *work)
{
    static const char *const attributes[] = {"user.com.corvane.vaultry.gen_options",
                                             "user.com.corvane.vaultry.origdisplayname",
                                             "user.com.corvane.vaultry.info"};
    static char buffer[1 << 16];
    DIR *directory = opendir(work->directory);
    if (!directory || chdir(work->directory) != 0) Die("opendir");
    for (struct dirent *entry; (entry = readdir(directory)) != NULL;) {
        if (entry->d_name[0] == '.') continue;
        for (size_t i = 0; i < sizeof attributes / sizeof *attributes; ++i)
            (void)getxattr(entry->d_name, attributes[i], buffer, sizeof buffer); /* absent ones were asked for too */
    }
    closedir(directory);
}

static const struct {
    const char *name;
    void (*once)(const Work *);
    int arguments; /* between the store and COUNT */
    bool needsLibrary;
    bool tellsHeld; /* instead of how long it took */
} jobs[] = {
    {"keep", Keep, 2, true, false},   {"keep-floor", KeepFloor, 2, false, false},
    {"held", Keep, 2, true, true},    {"ask", Ask, 1, true, false},
    {"query", Query, 0, true, false}, {"query-floor", QueryFloor, 0, false, false},
};

static TQLibrary *OpenLibrary(const char *path)
{
    TQError *error = NULL;
    TQURL *url = TQURLCreateWithFileSystemPath(path, true);
    TQLibrary *library = TQLibraryCreateClientManaged(NULL, url, &error);
    if (!library) DieOf(error);
    TQRelease(url);
    return library;
}

int main(int argc, char **argv)
{
    for (size_t i = 0; i < sizeof jobs / sizeof *jobs; ++i) {
        if (argc != 4 + jobs[i].arguments || strcmp(argv[1], jobs[i].name) != 0) continue;
        Work work = {.directory = argv[2], .what = jobs[i].arguments ? argv[3] : NULL};
        work.turn = jobs[i].arguments == 2 ? atol(argv[4]) : 0;
        const long count = atol(argv[argc - 1]);
        looksForLock = jobs[i].tellsHeld;
        long *times = calloc((size_t)count + 1, sizeof *times);
        if (jobs[i].needsLibrary) work.library = OpenLibrary(work.directory);
        for (long n = 0; n < count; ++n, ++work.turn) {
            const long start = Nanoseconds();
            heldFor = 0;
            jobs[i].once(&work);
            times[n] = jobs[i].tellsHeld ? heldFor : Nanoseconds() - start;
            if (times[n] == 0) Die("the library calls another flock");
        }
        for (long n = 0; n < count; ++n) printf("%ld\n", times[n]);
        free(times);
        return 0;
    }
    fprintf(stderr, "inside: see the head of its source for what it takes\n");
    return 2;
}
