#ifndef VELM_PLATFORM_NVRAM_H
#define VELM_PLATFORM_NVRAM_H

/* The platform's non-volatile settings. The vendor's library or platform/host provides these. */

#ifdef __cplusplus
extern "C" {
#endif

/* A copy of the setting's value, which the caller frees with free(); NULL when it is absent. */
char *nvram_unf_get(const char *name);

/* Sets a setting in memory, seen at once by every process; 0, or another value on failure. */
int nvram_set(const char *name, const char *value);

/* Makes everything set so far survive a power cut; 0, or another value on failure. */
int nvram_commit(void);

#ifdef __cplusplus
}
#endif

#endif
