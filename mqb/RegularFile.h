// RegularFile.h: opening a file the user named without ever waiting on it. A
// named pipe with nobody at its other end, or a device that blocks in open,
// would hold the caller (and the shell) for good in a plain open or fopen.
#pragma once
#include <sys/types.h>
#include "MQBExport.h"

namespace mqb {

// What openRegularFile accepts besides a regular file.
enum class FileKinds { RegularOnly, RegularOrCharDevice };

// Opens `path` with `flags` (and `mode` when they create it) as open(2) does,
// but with O_NONBLOCK, so that the open itself never waits, and keeps the
// descriptor only when fstat finds a regular file (or, with
// RegularOrCharDevice, a character device such as /dev/null). The descriptor
// returned is blocking again and close-on-exec. Returns -1 with errno set
// when the open fails, and with errno EINVAL when the file is of another kind
// (a FIFO, a socket, a directory, a block device); nothing is left open then.
MQB_API int openRegularFile(const char* path, int flags, mode_t mode = 0666,
                            FileKinds kinds = FileKinds::RegularOnly);

}  // namespace mqb
