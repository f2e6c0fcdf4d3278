// WriteJournal.cpp: the per-block journal in a sparse mapping, and its file
// form.
#include "WriteJournal.h"
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <vector>

namespace mqb {

namespace {

constexpr char kMagic[8] = {'K', 'I', 'V', 'J', 'R', 'N', 'L', '2'};

// The header page, little-endian; the identity text fills the rest of it.
struct Header {
    char     magic[8];
    uint64_t blocks;
    uint32_t blockSize;
    uint32_t entryBytes;
    uint64_t nextSeq;
    uint64_t length;       // of the whole file: header page + entries
    uint32_t identityLen;
    char     identity[WriteJournal::kHeaderBytes - 44];
};
static_assert(sizeof(Header) == WriteJournal::kHeaderBytes, "journal header layout");

std::string quoted(const std::string& s) { return "\"" + s + "\""; }
std::string sysErr(const std::string& what, const std::string& path) {
    return what + " " + quoted(path) + ": " + std::strerror(errno);
}

// Closes a descriptor on every path out.
struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd() { if (fd >= 0) ::close(fd); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// Opens `path` without ever waiting on a FIFO or device, and refuses what is
// not a regular file. Returns the descriptor, or -1 with `err`.
int openRegular(const std::string& path, int flags, std::string& err) {
    const int fd = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, 0644);
    if (fd < 0) {
        err = sysErr(flags & O_CREAT ? "cannot create journal" : "cannot open journal", path);
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        err = "journal " + quoted(path) + " is not a regular file";
        return -1;
    }
    return fd;
}

uint64_t lengthFor(uint64_t blocks) { return WriteJournal::kHeaderBytes + 2 * blocks; }

std::string clip(const std::string& id) { return id.substr(0, sizeof(Header::identity)); }

// Checks a header read from `path` (of `size` bytes) against the device.
// Returns false with `err` saying what does not match.
bool validate(const Header& h, uint64_t size, uint64_t blocks, uint32_t bs, const std::string& id,
              const std::string& path, std::string& err) {
    if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0 || h.entryBytes != 2) {
        err = quoted(path) + " is not a write journal";
        return false;
    }
    if (h.blocks != blocks || h.blockSize != bs) {
        err = "journal " + quoted(path) + " is for a device of " + std::to_string(h.blocks) +
              " blocks of " + std::to_string(h.blockSize) + " bytes, not " + std::to_string(blocks) +
              " blocks of " + std::to_string(bs) + " bytes";
        return false;
    }
    const std::string theirs(h.identity, h.identityLen <= sizeof h.identity ? h.identityLen : 0);
    if (theirs != clip(id)) {
        err = "journal " + quoted(path) + " is for device " + quoted(theirs) + ", not " + quoted(id);
        return false;
    }
    const uint64_t want = lengthFor(blocks);
    if (h.length != want || size < want) {
        err = "journal " + quoted(path) + " is truncated";
        return false;
    }
    if (size > want) {
        err = "journal " + quoted(path) + " has " + std::to_string(size - want) + " trailing bytes";
        return false;
    }
    return true;
}

void initHeader(Header& h, uint64_t blocks, uint32_t bs, const std::string& id, uint64_t seq) {
    std::memset(&h, 0, sizeof h);
    std::memcpy(h.magic, kMagic, sizeof kMagic);
    h.blocks = blocks;
    h.blockSize = bs;
    h.entryBytes = 2;
    h.nextSeq = seq;
    h.length = lengthFor(blocks);
    const std::string c = clip(id);
    h.identityLen = uint32_t(c.size());
    std::memcpy(h.identity, c.data(), c.size());
}

bool readHeader(int fd, Header& h) { return pread(fd, &h, sizeof h, 0) == ssize_t(sizeof h); }

bool writeAll(int fd, const void* p, uint64_t n, uint64_t off) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    while (n) {
        const ssize_t w = pwrite(fd, b, n > (1u << 30) ? (1u << 30) : size_t(n), off_t(off));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        b += w, off += uint64_t(w), n -= uint64_t(w);
    }
    return true;
}

// Calls f(first, end) over the byte runs of `fd` in [from, to) that hold
// data (the whole range when the file system cannot tell).
template <typename F> bool forDataRuns(int fd, uint64_t from, uint64_t to, F f) {
    uint64_t at = from;
    while (at < to) {
        const off_t d = lseek(fd, off_t(at), SEEK_DATA);
        if (d < 0) {
            if (errno == ENXIO) return true;  // nothing but a hole from here
            return f(at, to);
        }
        if (uint64_t(d) >= to) return true;
        off_t h = lseek(fd, d, SEEK_HOLE);
        const uint64_t end = h < 0 || uint64_t(h) > to ? to : uint64_t(h);
        if (!f(uint64_t(d), end)) return false;
        at = end;
    }
    return true;
}

}  // namespace

std::unique_ptr<WriteJournal> WriteJournal::open(uint64_t blocks, uint32_t bs, const std::string& id,
                                                 const std::string& path, std::string& err) {
    if (blocks > (UINT64_MAX - kHeaderBytes) / 2) {
        err = "the device is too large for a journal";
        return nullptr;
    }
    std::unique_ptr<WriteJournal> j(new WriteJournal());
    j->blocks_ = blocks, j->blockSize_ = bs, j->identity_ = id, j->path_ = path;
    j->mapLen_ = lengthFor(blocks);
    if (path.empty()) {
        void* p = mmap(nullptr, j->mapLen_, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED) {
            err = "cannot map a journal of " + std::to_string(j->mapLen_) + " bytes: " + std::strerror(errno);
            return nullptr;
        }
        j->map_ = static_cast<uint8_t*>(p);
        initHeader(*reinterpret_cast<Header*>(j->map_), blocks, bs, id, 1);
    } else {
        j->fd_ = openRegular(path, O_RDWR | O_CREAT, err);
        if (j->fd_ < 0) return nullptr;
        if (flock(j->fd_, LOCK_EX | LOCK_NB) != 0) {
            err = "journal " + quoted(path) + " is in use by another device or process";
            return nullptr;
        }
        struct stat st;
        if (fstat(j->fd_, &st) != 0) { err = sysErr("cannot open journal", path); return nullptr; }
        if (st.st_size == 0) {
            Header h;
            initHeader(h, blocks, bs, id, 1);
            if (ftruncate(j->fd_, off_t(j->mapLen_)) != 0 || !writeAll(j->fd_, &h, sizeof h, 0) ||
                fsync(j->fd_) != 0) {
                err = sysErr("cannot create journal", path);
                return nullptr;
            }
        } else {
            Header h;
            if (!readHeader(j->fd_, h)) {
                err = quoted(path) + " is not a write journal";
                return nullptr;
            }
            if (!validate(h, uint64_t(st.st_size), blocks, bs, id, path, err)) return nullptr;
        }
        void* p = mmap(nullptr, j->mapLen_, PROT_READ | PROT_WRITE, MAP_SHARED, j->fd_, 0);
        if (p == MAP_FAILED) { err = sysErr("cannot map journal", path); return nullptr; }
        j->map_ = static_cast<uint8_t*>(p);
    }
    j->e_ = reinterpret_cast<uint16_t*>(j->map_ + kHeaderBytes);
    return j;
}

WriteJournal::~WriteJournal() {
    if (map_) munmap(map_, mapLen_);
    if (fd_ >= 0) ::close(fd_);
}

uint64_t WriteJournal::savedSeq() const {
    return __atomic_load_n(&reinterpret_cast<Header*>(map_)->nextSeq, __ATOMIC_RELAXED);
}

void WriteJournal::reserveSeq(uint64_t next) {
    uint64_t* p = &reinterpret_cast<Header*>(map_)->nextSeq;
    uint64_t cur = __atomic_load_n(p, __ATOMIC_RELAXED);
    while (cur < next && !__atomic_compare_exchange_n(p, &cur, next, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
}

void WriteJournal::beginWrite(uint64_t lba, uint32_t tl, uint8_t v) {
    const uint64_t end = lba + tl < blocks_ ? lba + tl : blocks_;
    for (uint64_t b = lba; b < end; ++b) {
        uint16_t e = __atomic_load_n(&e_[b], __ATOMIC_RELAXED);
        uint8_t old = uint8_t(e);
        if (e >> 8) {
            // Already in doubt (cut off earlier, or racing): the block may
            // hold either side, so the old content is "some keyed block", or
            // anything when either side was unknown.
            const uint8_t other = uint8_t((e >> 8) - 1);
            old = old == kUnknown || other == kUnknown ? kUnknown : kAmbiguous;
        }
        __atomic_store_n(&e_[b], uint16_t(v | (old + 1) << 8), __ATOMIC_RELAXED);
    }
}

void WriteJournal::completeWrite(uint64_t lba, uint32_t tl, uint8_t v) {
    const uint64_t end = lba + tl < blocks_ ? lba + tl : blocks_;
    for (uint64_t b = lba; b < end; ++b) {
        uint16_t e = __atomic_load_n(&e_[b], __ATOMIC_RELAXED);
        if (uint8_t(e) == v && (e >> 8))
            __atomic_compare_exchange_n(&e_[b], &e, uint16_t(v), false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
    }
}

void WriteJournal::fill(uint64_t lba, uint64_t end, uint8_t v) {
    if (end > blocks_) end = blocks_;
    for (uint64_t b = lba; b < end; ++b) __atomic_store_n(&e_[b], uint16_t(v), __ATOMIC_RELAXED);
}

template <typename F> void WriteJournal::forPopulated(F f) const {
    if (fd_ >= 0) {
        forDataRuns(fd_, kHeaderBytes, mapLen_, [&](uint64_t from, uint64_t to) {
            const uint64_t first = (from - kHeaderBytes) / 2, last = (to - kHeaderBytes + 1) / 2;
            f(first, (last < blocks_ ? last : blocks_) - first);
            return true;
        });
        return;
    }
    // Anonymous memory: pages never touched are not resident.
    const uint64_t page = uint64_t(sysconf(_SC_PAGESIZE)), chunk = page << 18;
    std::vector<unsigned char> vec(size_t(chunk / page));
    for (uint64_t off = kHeaderBytes; off < mapLen_; off += chunk) {
        const uint64_t len = mapLen_ - off < chunk ? mapLen_ - off : chunk;
        if (mincore(map_ + off, len, vec.data()) != 0) {
            f((off - kHeaderBytes) / 2, len / 2);
            continue;
        }
        for (uint64_t i = 0; i < (len + page - 1) / page; ++i)
            if (vec[i] & 1) {
                const uint64_t first = (off + i * page - kHeaderBytes) / 2;
                const uint64_t n = page / 2;
                f(first, first + n < blocks_ ? n : blocks_ - first);
            }
    }
}

WriteJournal::Counts WriteJournal::counts() const {
    Counts c;
    uint64_t runs = 0;
    forPopulated([&](uint64_t first, uint64_t n) {
        for (uint64_t b = first; b < first + n; ++b) {
            const uint16_t e = __atomic_load_n(&e_[b], __ATOMIC_RELAXED);
            if (e >> 8) ++c.inDoubt;
            else if (e == kAmbiguous) ++c.ambiguous;
            else if (e != kUnknown) ++c.known;
        }
        ++runs;
    });
    c.unknown = blocks_ - c.known - c.ambiguous - c.inDoubt;
    struct stat st;
    if (fd_ >= 0) c.residentBytes = fstat(fd_, &st) == 0 ? uint64_t(st.st_blocks) * 512 : 0;
    else c.residentBytes = (runs + 1) * uint64_t(sysconf(_SC_PAGESIZE));  // one run per resident page
    return c;
}

bool WriteJournal::save(const std::string& path, uint64_t nextSeq, std::string& err) const {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        err = "journal " + quoted(path) + " is not a regular file";
        return false;
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string tmp = path + ".XXXXXX";
    Fd out(mkstemp(&tmp[0]));
    if (out.fd < 0) { err = sysErr("cannot create journal", path); return false; }
    bool ok = fchmod(out.fd, 0644) == 0;
    Header h;
    initHeader(h, blocks_, blockSize_, identity_, nextSeq);
    ok = ok && writeAll(out.fd, &h, sizeof h, 0);
    // Entries in runs of 64 KiB; all-zero runs stay holes.
    constexpr uint64_t kRun = 32768;
    forPopulated([&](uint64_t first, uint64_t n) {
        for (uint64_t at = first; ok && at < first + n; at += kRun) {
            const uint64_t m = first + n - at < kRun ? first + n - at : kRun;
            bool zero = true;
            for (uint64_t b = at; zero && b < at + m; ++b) zero = __atomic_load_n(&e_[b], __ATOMIC_RELAXED) == 0;
            if (!zero) ok = writeAll(out.fd, e_ + at, m * 2, kHeaderBytes + at * 2);
        }
    });
    ok = ok && ftruncate(out.fd, off_t(mapLen_)) == 0 && fsync(out.fd) == 0;
    if (ok && rename(tmp.c_str(), path.c_str()) != 0) ok = false;
    if (!ok) {
        err = sysErr("cannot write journal", path);
        unlink(tmp.c_str());
        return false;
    }
    Fd d(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (d.fd < 0 || fsync(d.fd) != 0) {
        err = sysErr("cannot sync the folder of journal", path);
        return false;
    }
    return true;
}

bool WriteJournal::load(const std::string& path, uint64_t& nextSeq, std::string& err) {
    Fd in(openRegular(path, O_RDONLY, err));
    if (in.fd < 0) return false;
    struct stat st;
    Header h;
    if (fstat(in.fd, &st) != 0 || !readHeader(in.fd, h)) {
        err = quoted(path) + " is not a write journal";
        return false;
    }
    if (!validate(h, uint64_t(st.st_size), blocks_, blockSize_, identity_, path, err)) return false;
    // Clear, then copy the file's data runs straight into the entries.
    const uint64_t entryLen = mapLen_ - kHeaderBytes;
    if (fd_ >= 0) {
        if (fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, kHeaderBytes, off_t(entryLen)) != 0)
            fill(0, blocks_, kUnknown);
    } else if (madvise(map_ + kHeaderBytes, entryLen, MADV_DONTNEED) != 0) {
        fill(0, blocks_, kUnknown);
    }
    bool ok = forDataRuns(in.fd, kHeaderBytes, mapLen_, [&](uint64_t from, uint64_t to) {
        for (uint64_t at = from; at < to;) {
            const ssize_t r = pread(in.fd, map_ + at, to - at > (1u << 30) ? (1u << 30) : size_t(to - at), off_t(at));
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) return false;
            at += uint64_t(r);
        }
        return true;
    });
    if (!ok) {
        err = sysErr("cannot read journal", path);
        fill(0, blocks_, kUnknown);
        return false;
    }
    nextSeq = h.nextSeq;
    reserveSeq(nextSeq);
    return true;
}

}  // namespace mqb
