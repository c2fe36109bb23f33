// Exceptions end here. Inside the library, running out of memory throws bad_alloc; a client sees null or false.

#pragma once

#include <exception>

// What `work` returns, or `otherwise` if it could not be done.
template <class Result, class Work> Result NoThrow(Result otherwise, Work work)
{
    try {
        return work();
    } catch (const std::exception &) {
        return otherwise;
    }
}
