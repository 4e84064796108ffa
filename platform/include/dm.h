#ifndef VELM_PLATFORM_DM_H
#define VELM_PLATFORM_DM_H

/* The platform's process monitor. The vendor's library or platform/host provides this. */

#ifdef __cplusplus
extern "C" {
#endif

/* Asks the monitor to start the process again, with these arguments, should it end. Nothing passed
   is kept by reference. 0, or another value on failure. */
int dm_register_app_restart_info(int pid, int argc, char **argv, int flags);

#ifdef __cplusplus
}
#endif

#endif
