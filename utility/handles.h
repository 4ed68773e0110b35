// Owners for acquired things: each releases what it holds when it goes out of scope.
#pragma once

#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

template <auto Release> struct Releaser {
    template <class T> void operator()(T *handle) const noexcept
    {
        (void)Release(handle); // a destructor cannot report it
    }
};

// A heap text of a C library, released with free().
using HeapText = std::unique_ptr<char, Releaser<std::free>>;

// A file descriptor; -1 holds none. 0 is a descriptor like any other.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : fd_{fd} {}
    UniqueFd(UniqueFd &&other) noexcept : fd_{other.release()} {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd()
    {
        reset();
    }

    explicit operator bool() const noexcept
    {
        return fd_ >= 0;
    }
    int get() const noexcept
    {
        return fd_;
    }
    int release() noexcept
    {
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
