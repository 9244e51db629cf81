/* Flash file service. */
#ifndef FS_PUBLIC_H
#define FS_PUBLIC_H

#include <stddef.h>
#include <sys/stat.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct stat fs_stat;

/* stat(2): 0 when the file exists, negative when it cannot be found. */
int efs_stat(const char* path, fs_stat* buf);
/* Writes the whole buffer to `path`, opened with `oflag` and created with `mode`; short
 * writes are continued. Returns `length` (>= 0) on success, negative on failure. */
int efs_put(const char* path, void* data, size_t length, int oflag, int mode);

#ifdef __cplusplus
}
#endif

#endif /* FS_PUBLIC_H */
