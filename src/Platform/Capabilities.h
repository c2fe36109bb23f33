// The capabilities of the calling thread.

#pragma once

#include <linux/capability.h>

namespace platform {

// A thread's capability sets.
struct Capabilities {
    __user_cap_data_struct words[_LINUX_CAPABILITY_U32S_3];
};

// Both return false with errno on failure.
bool GetCapabilities(Capabilities *out);
bool SetCapabilities(const Capabilities &capabilities);

} // namespace platform
