#pragma once

#include <cstddef>

/// `malloc` and its kin, defined by the program itself: the linker's rules give them to every library
/// of the process, the C library included, before that one's own. They ask the allocator, and when it
/// has nothing left the process meets with exhausted memory (`memory_is_exhausted`) right there,
/// whoever asked and whatever he would have made of a null. `free` is the allocator's own.
///
/// Linked into the daemon alone, and not under a sanitizer, which brings an allocator of its own.

/// A request beyond this that fails is refused with a null and ends nothing: nobody in the daemon
/// needs a hundredth of it, so it can only be a length that somebody outside made up.
inline constexpr std::size_t checked_malloc_largest = std::size_t{64} * 1024 * 1024;
