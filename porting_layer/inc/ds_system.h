/* Shell command service. */
#ifndef DS_SYSTEM_H
#define DS_SYSTEM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `command` (`length` characters, NUL-terminated) through /bin/sh -c and returns when
 * it has finished: the shell's exit status, or -1 when it could not be run. */
int ds_system_call(const char* command, size_t length);

#ifdef __cplusplus
}
#endif

#endif /* DS_SYSTEM_H */
