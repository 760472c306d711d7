// Owner of one open file descriptor; closes it at the end of its life.
#pragma once

#include <unistd.h>

class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : fd(descriptor) {}
    ~FileDescriptor() {
        if (isOpen()) {
            ::close(fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    // The result of a failed open, -1, counts as not open.
    bool isOpen() const { return fd != -1; }
    int get() const { return fd; }

  private:
    const int fd;
};
