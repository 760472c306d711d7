// The program's descriptors that stand for /dev/port, and what is read and written through them:
// one port access for each byte. Any thread may use them.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace cardsim {

// A new descriptor, opened as flags say; -1 with errno set when there is none to be had.
int openPortDevice(int flags);
// Whether it stands for the device. It does until forgetPortDevice.
bool isPortDevice(int fd);
// copy stands for whatever fd stands for; both share the place where they stand.
void followCopy(int fd, int copy);
void forgetPortDevice(int fd);

// As read, pread, write and pwrite of such a descriptor; offset: the first port, or kWhereItStands.
constexpr off_t kWhereItStands = -1;
ssize_t readPorts(int fd, void* buffer, std::size_t count, off_t offset = kWhereItStands);
ssize_t writePorts(int fd, const void* buffer, std::size_t count, off_t offset = kWhereItStands);

}  // namespace cardsim
