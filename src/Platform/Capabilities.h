// The capabilities of the calling thread.

#pragma once

#include <linux/capability.h>

namespace platform {

// A thread's sets of them.
struct Capabilities {
    __user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3];
};

// False with errno.
bool GetCapabilities(Capabilities *out);
bool SetCapabilities(const Capabilities &capabilities);

} // namespace platform
