// sys_util.hpp - small RAII owners of the simulator's system resources.
#pragma once

#include <cerrno>
#include <cstddef>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tcamwrap::sim {

// An owned file descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&o) noexcept
    {
        if (this != &o) {
            reset();
            fd_ = std::exchange(o.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset()
    {
        if (fd_ >= 0) {
            int saved = errno;  // closing must not hide the error being reported
            ::close(fd_);
            errno = saved;
        }
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// An owned shared mapping of a whole file.
class Mapping {
public:
    Mapping() = default;
    Mapping(void *addr, std::size_t len) : addr_(addr), len_(len) {}
    Mapping(Mapping &&o) noexcept
        : addr_(std::exchange(o.addr_, nullptr)), len_(std::exchange(o.len_, 0)) {}
    Mapping &operator=(Mapping &&o) noexcept
    {
        if (this != &o) {
            reset();
            addr_ = std::exchange(o.addr_, nullptr);
            len_ = std::exchange(o.len_, 0);
        }
        return *this;
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    ~Mapping() { reset(); }

    std::byte *data() const { return static_cast<std::byte *>(addr_); }
    std::size_t size() const { return len_; }
    void reset()
    {
        if (addr_ != nullptr)
            ::munmap(addr_, len_);
        addr_ = nullptr;
        len_ = 0;
    }

private:
    void *addr_ = nullptr;
    std::size_t len_ = 0;
};

// An exclusive advisory lock on a lock file, held for the object's life; it keeps
// two processes from creating the same card at once.
class FileLock {
public:
    explicit FileLock(const std::string &path)
        : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644))
    {
        if (fd_ && ::flock(fd_.get(), LOCK_EX) != 0)
            fd_.reset();
    }
    explicit operator bool() const { return static_cast<bool>(fd_); }

private:
    UniqueFd fd_;  // closing the descriptor releases the lock
};

// Sets errno and returns -1: the error convention of every simulator call.
inline int fail_with(int err)
{
    errno = err;
    return -1;
}

}  // namespace tcamwrap::sim
