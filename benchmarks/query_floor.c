// The least that a query of all records can cost: the names in a store's root, and one call for each attribute.
//
//     query_floor STORE [ROUNDS]    prints the records, and the milliseconds of the fastest round: by the clock, of the CPU

#define _GNU_SOURCE
#include <dirent.h>
#include <linux/limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/xattr.h>
#include <time.h>

static double Milliseconds(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec * 1e-6;
}

// The number of records, or -1 if the root can't be read.
static long ReadAll(const char *root)
{
    static const char *const names[] = {"gen_options", "origdisplayname", "info"};
    static char value[XATTR_SIZE_MAX];
    long records = 0;
    DIR *directory = opendir(root);
    if (!directory) return -1;
    for (const struct dirent *entry; (entry = readdir(directory));) {
        if (entry->d_name[0] == '.') continue;
        for (size_t i = 0; i < sizeof names / sizeof *names; ++i) {
            char path[4096], attribute[64];
            snprintf(path, sizeof path, "%s/%s", root, entry->d_name);
            snprintf(attribute, sizeof attribute, "user.com.corvane.vaultry.%s", names[i]);
            (void)getxattr(path, attribute, value, sizeof value); // one that is absent costs the same call
        }
        ++records;
    }
    closedir(directory);
    return records;
}

int main(int count, char **words)
{
    double wall = 0, cpu = 0;
    long records = -1;
    const int rounds = count > 2 ? atoi(words[2]) : 1;
    for (int i = 0; count > 1 && i < rounds; ++i) {
        const double wallBefore = Milliseconds(CLOCK_MONOTONIC), cpuBefore = Milliseconds(CLOCK_PROCESS_CPUTIME_ID);
        records = ReadAll(words[1]);
        const double wallNow = Milliseconds(CLOCK_MONOTONIC) - wallBefore;
        const double cpuNow = Milliseconds(CLOCK_PROCESS_CPUTIME_ID) - cpuBefore;
        if (i == 0 || wallNow < wall) wall = wallNow;
        if (i == 0 || cpuNow < cpu) cpu = cpuNow;
    }
    if (records < 0) {
        fputs("usage: query_floor STORE [ROUNDS]\n", stderr);
        return 2;
    }
    printf("%ld records, %.2f ms, %.2f ms of the CPU\n", records, wall, cpu);
    return 0;
}
