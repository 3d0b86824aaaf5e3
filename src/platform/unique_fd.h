// One owner for one descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace opalcrt {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() { Close(); }

    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }
    // Gives the descriptor away; the caller closes it.
    [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
    // What close(2) answers, for those who have written: an error there is data that did not arrive.
    // The descriptor is gone in either case (close(2): never repeat it on Linux).
    int Close() { return fd_ >= 0 ? ::close(std::exchange(fd_, -1)) : 0; }

private:
    int fd_ = -1;
};

}  // namespace opalcrt
