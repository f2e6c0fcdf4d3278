// RegularFile.cpp: openRegularFile, an open that never waits and keeps
// regular files only.
#include "RegularFile.h"
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

namespace mqb {

int openRegularFile(const char* path, int flags, mode_t mode, FileKinds kinds) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int fd;
    do {
        fd = ::open(path, flags | O_NONBLOCK | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return -1;
    struct stat st;
    const bool fits = ::fstat(fd, &st) == 0 &&
                      (S_ISREG(st.st_mode) ||
                       (kinds == FileKinds::RegularOrCharDevice && S_ISCHR(st.st_mode)));
    const int fl = fits ? ::fcntl(fd, F_GETFL) : -1;
    if (!fits || fl < 0 || ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0) {
        const int why = fits ? errno : EINVAL;
        ::close(fd);
        errno = why;
        return -1;
    }
    return fd;
}

}  // namespace mqb
