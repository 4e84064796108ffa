#pragma once

#include <malloc.h>

#include <cstddef>

/// The bytes that the C library's allocator has given out; 0 under an instrumented one.
inline std::size_t heap_in_use()
{
#if __GLIBC_PREREQ(2, 33)
    return mallinfo2().uordblks;
#else
    return static_cast<unsigned int>(mallinfo().uordblks); // wrong from 4 GiB on, which no test has
#endif
}
