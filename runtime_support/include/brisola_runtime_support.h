#ifndef BRISOLA_RUNTIME_SUPPORT_H
#define BRISOLA_RUNTIME_SUPPORT_H

/* The two POSIX shared-memory calls, behind plain C functions so that every caller in the
 * product (and the driver plug-in's build) goes through one definition. */

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* shm_open(name, oflag, mode), with the descriptor made close-on-exec so that no helper
 * process inherits it. Returns the descriptor, or -1 with errno set. */
int BrisolaShmOpen(const char* name, int oflag, mode_t mode);

/* shm_unlink(name). Returns 0, or -1 with errno set. */
int BrisolaShmUnlink(const char* name);

#ifdef __cplusplus
}
#endif

#endif
