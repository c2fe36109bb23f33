// An editor's save hook: keeps what the document holds, and then saves; or goes back to what was kept.
//
//     cc save_hook.c -o save_hook $(pkg-config --cflags --libs vaultry)
//     save_hook STORE DOCUMENT save < NEW-CONTENTS    keeps what the document held and prints that generation's name
//     save_hook STORE DOCUMENT restore NAME           keeps what it replaces too
// The store is any existing directory, and the document an existing file.

#define _XOPEN_SOURCE 700 // realpath
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <vaultry/vaultry.h>

// The time, and the document's extension, so that a restored document keeps that.
static TQString *CreateName(const char *path, struct timespec now)
{
    char day[32];
    const char *extension = TQGetFileNameExtensionForPath(path);
    strftime(day, sizeof day, "%Y-%m-%dT%H.%M.%S", gmtime(&now.tv_sec));
    return TQStringCreateWithFormat("%s.%09ldZ%s", day, now.tv_nsec, extension ? extension : "");
}

// Notes what other clients need to find the document's history: its path, as bytes, and the time.
static bool Describe(TQLibrary *library, const TQString *name, const char *path, struct timespec now)
{
    TQValue *keys[] = {TQStringCreate("vaultry.document"), TQStringCreate("vaultry.time")};
    TQValue *values[] = {TQDataCreate(path, strlen(path)),
                         TQDateCreate((double)now.tv_sec + (double)now.tv_nsec / 1e9)};
    TQDictionary *info = TQDictionaryCreate(keys, values, 2); // null if one of these is null
    const bool done = TQLibrarySetGenerationInfoValues(library, name, info);
    TQValue *owned[] = {info, keys[0], keys[1], values[0], values[1]};
    for (size_t i = 0; i < sizeof owned / sizeof *owned; ++i) TQRelease(owned[i]);
    return done;
}

static bool Write(const char *path, FILE *contents)
{
    char block[65536];
    FILE *document = fopen(path, "wb");
    bool written = document != NULL;
    for (size_t length; written && (length = fread(block, 1, sizeof block, contents)) > 0;)
        written = fwrite(block, 1, length, document) == length;
    return document && fclose(document) == 0 && written && !ferror(contents);
}

int main(int argc, char **argv)
{
    const bool restores = argc == 5 && strcmp(argv[3], "restore") == 0;
    if (!restores && !(argc == 4 && strcmp(argv[3], "save") == 0))
        return fputs("usage: save_hook STORE DOCUMENT save|restore [NAME]\n", stderr), 2;
    char *path = realpath(argv[2], NULL);
    if (!path) return perror(argv[2]), 1;
    struct timespec now;
    timespec_get(&now, TIME_UTC);
    TQError *error = NULL;
    TQURL *store = TQURLCreateWithFileSystemPath(argv[1], true), *document = TQURLCreateWithFileSystemPath(path, false);
    TQString *kept = CreateName(path, now), *wanted = restores ? TQStringCreate(argv[4]) : NULL;
    TQLibrary *library = TQLibraryCreateClientManaged(NULL, store, &error);
    const bool isKept = library && kept && // a null name for the backup would mean none
                        (restores ? TQLibraryRestoreGeneration(library, wanted, document, kept, &error)
                                  : TQLibraryAddGenerationWithOptionsByCopyingFile(library, kept, document, 1, &error));
    if (isKept) error = NULL; // must not be read after a success
    TQString *why = TQErrorCopyDescription(error);
    const char *failed = isKept ? NULL : restores ? "can't restore" : "can't keep what is there, so nothing is saved";
    if (isKept) printf("%s\n", TQStringGetUTF8(kept));
    if (isKept && !Describe(library, kept, path, now))
        failed = "can't note whose generation that is; the system log tells why";
    else if (isKept && !restores && !Write(path, stdin))
        failed = "can't save; restore what was kept";
    if (failed) fprintf(stderr, "save_hook: %s%s%s\n", failed, why ? ": " : "", why ? TQStringGetUTF8(why) : "");
    TQValue *owned[] = {why, error, library, wanted, kept, document, store};
    for (size_t i = 0; i < sizeof owned / sizeof *owned; ++i) TQRelease(owned[i]); // null is fine
    return free(path), failed ? 1 : 0;
}
