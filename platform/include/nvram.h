#ifndef VELM_PLATFORM_NVRAM_H
#define VELM_PLATFORM_NVRAM_H

/* The platform's non-volatile settings. The vendor's library or platform/host provides these.
   docs/porting.md has the whole contract; velm-platform-check looks whether a library keeps it. The
   daemon calls from one thread, which serves nobody meanwhile. It reads one setting before it forks,
   and all else after: nothing that a fork ends (a thread, a lock, a connection) may be needed then. */

#ifdef __cplusplus
extern "C" {
#endif

/* A copy of the setting's value, made with malloc, which the caller frees with free(); NULL when it is
   absent. */
char *nvram_unf_get(const char *name);

/* Sets a setting in memory, seen at once by every process; 0, or another value on failure. Names have
   up to 63 letters, digits and "_"; values up to 2048 bytes of any kind but zero. "" empties it. */
int nvram_set(const char *name, const char *value);

/* Makes everything set so far survive a power cut; 0, or another value on failure. */
int nvram_commit(void);

#ifdef __cplusplus
}
#endif

#endif
