#include "Platform/Capabilities.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

bool GetCapabilities(Capabilities *out)
{
    __user_cap_header_struct thread{_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &thread, out->words) == 0;
}

bool SetCapabilities(const Capabilities &capabilities)
{
    __user_cap_header_struct thread{_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capset, &thread, capabilities.words) == 0;
}

} // namespace platform
