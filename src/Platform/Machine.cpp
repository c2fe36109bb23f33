#include "Platform/Machine.h"

#include "Platform/UniqueFd.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/utsname.h>

namespace platform {

// The first line of a file, if it is one word that fits.
template <size_t size> static bool _ReadWord(const char *path, char (&word)[size])
{
    const UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    const ssize_t length = fd ? read(fd.get(), word, size - 1) : -1;
    word[length > 0 ? length : 0] = '\0';
    const size_t end = strcspn(word, " \n");
    const bool isWhole = word[end] == '\n';
    word[isWhole ? end : 0] = '\0';
    return word[0] != '\0';
}

static Machine _ReadMachine()
{
    Machine machine{};
    utsname name{};
    (void)uname(&name);
    name.nodename[strcspn(name.nodename, " \n")] = '\0';
    (void)snprintf(machine.name, sizeof machine.name, "%s", name.nodename);
    if (!_ReadWord("/etc/machine-id", machine.id))
        (void)snprintf(machine.id, sizeof machine.id, "name:%s", name.nodename);
    if (!_ReadWord("/proc/sys/kernel/random/boot_id", machine.boot)) (void)strcpy(machine.boot, "-");
    return machine;
}

const Machine &ThisMachine()
{
    const ErrnoKeeper keeper;
    static const Machine machine = _ReadMachine();
    return machine;
}

} // namespace platform
