// Owner of one open file descriptor; closes it at the end of its life.
#pragma once

#include <unistd.h>

#include <utility>

class FileDescriptor {
  public:
    // The result of a failed open, -1, counts as not open.
    explicit FileDescriptor(int descriptor = -1) : fd(descriptor) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    bool isOpen() const { return fd != -1; }
    int get() const { return fd; }
    // Closes it, and owns another one, if any.
    void reset(int descriptor = -1) {
        if (isOpen()) {
            ::close(fd);
        }
        fd = descriptor;
    }
    // Leaves it open, and owns nothing any more.
    int release() { return std::exchange(fd, -1); }

  private:
    int fd;
};
