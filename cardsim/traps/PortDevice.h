// The program's descriptors that stand for /dev/port, and what is read and written through them:
// one port access for each byte. Any thread may use them.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

namespace cardsim {

// A new descriptor, opened as flags say; -1 with errno set when there is none to be had.
int openPortDevice(int flags);
// Takes over the descriptors that stand for the device and that a process before this one has left.
void inheritPortDevices();
// Whether it stands for the device. It does until forgetPortDevice.
bool isPortDevice(int fd);
// Whether that is the file behind one of them.
bool isPortDevice(const struct stat& status);
// copy stands for whatever fd stands for; both share the place where they stand. False when there
// is no room for it.
bool followCopy(int fd, int copy);
void forgetPortDevice(int fd);
void forgetPortDevices(unsigned first, unsigned last);

// As read, pread, write and pwrite of such a descriptor; offset: the first port, or kWhereItStands.
// As of the device, there is nothing beyond port 65535.
constexpr off64_t kWhereItStands = -1;
ssize_t readPorts(int fd, void* buffer, std::size_t count, off64_t offset = kWhereItStands);
ssize_t writePorts(int fd, const void* buffer, std::size_t count, off64_t offset = kWhereItStands);
// The same with several buffers.
ssize_t readPorts(int fd, const iovec* parts, int count, off64_t offset = kWhereItStands);
ssize_t writePorts(int fd, const iovec* parts, int count, off64_t offset = kWhereItStands);

}  // namespace cardsim
