/* Preloaded into velmd, whose own malloc asks the next one: counts what is taken from the heap and
 * given back, in the file VELM_ROUND_HEAP. A block counts with the room that it has. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "round_page.h"

struct counts {
    uint64_t blocks, bytes;           /* taken so far */
    uint64_t held_blocks, held_bytes; /* of these not given back yet */
};

extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);
extern void *__libc_memalign(size_t, size_t);
extern void __libc_free(void *);

static struct counts before_there_is_a_file;
static struct counts *counts = &before_there_is_a_file;

__attribute__((constructor(101))) static void find_file(void)
{
    void *const page = round_page("VELM_ROUND_HEAP", sizeof *counts, O_RDWR);
    if (page != NULL) {
        memcpy(page, counts, sizeof *counts);
        counts = page;
    }
}

static void *taken(void *block)
{
    if (block != NULL) {
        const size_t size = malloc_usable_size(block);
        counts->blocks += 1;
        counts->bytes += size;
        counts->held_blocks += 1;
        counts->held_bytes += size;
    }
    return block;
}

static void given_back(size_t size)
{
    counts->held_blocks -= 1;
    counts->held_bytes -= size;
}

void *malloc(size_t size)
{
    return taken(__libc_malloc(size));
}

void *calloc(size_t count, size_t size)
{
    return taken(__libc_calloc(count, size));
}

void *memalign(size_t alignment, size_t size)
{
    return taken(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return taken(__libc_memalign(alignment, size));
}

void *realloc(void *old, size_t size)
{
    const size_t had = old != NULL ? malloc_usable_size(old) : 0;
    void *const block = __libc_realloc(old, size);
    if (old != NULL && (block != NULL || size == 0)) {
        given_back(had);
    }
    return taken(block);
}

void free(void *block)
{
    if (block != NULL) {
        given_back(malloc_usable_size(block));
    }
    __libc_free(block);
}
