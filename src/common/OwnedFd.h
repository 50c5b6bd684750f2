#pragma once

#include <unistd.h>

namespace Orvanta {

// Owns one file descriptor and closes it when destroyed; -1 holds nothing.
class OwnedFd
{
public:
    OwnedFd() = default;
    explicit OwnedFd(int descriptor) : fd(descriptor) {}
    ~OwnedFd() { reset(); }
    OwnedFd(OwnedFd&& other) noexcept : fd(other.release()) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;

    int get() const { return fd; }
    bool isValid() const { return fd != -1; }
    int release()
    {
        const int descriptor = fd;
        fd = -1;
        return descriptor;
    }
    void reset(int descriptor = -1)
    {
        if (fd != -1) {
            close(fd);
        }
        fd = descriptor;
    }

private:
    int fd = -1;
};

} // namespace Orvanta
