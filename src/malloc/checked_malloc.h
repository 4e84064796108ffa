#pragma once

#include <cstddef>

/// `malloc` and its kin, defined by the program itself: the linker's rules give them to every library
/// of the process, the C library included, before that one's own. They ask the allocator, and when it
/// has nothing left the process meets with exhausted memory (`memory_is_exhausted`) right there,
/// whoever asked and whatever he would have made of a null.
///
/// What is freed is overwritten first. A request's body holds a password, and libevent, libevhtp, cJSON
/// and the strings of C++ leave pieces of it in whatever they free on the way; nobody else could
/// overwrite those. `realloc` leaves none behind either. Of what OpenSSL frees only the buffers of
/// records are overwritten.
///
/// Linked into the daemon alone, and not under a sanitizer, which brings an allocator of its own.

/// A request beyond this that fails is refused with a null and ends nothing: nobody in the daemon
/// needs a hundredth of it, so it can only be a length that somebody outside made up.
inline constexpr std::size_t checked_malloc_largest = std::size_t{64} * 1024 * 1024;
