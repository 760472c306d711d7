// The way to the hardware: port permission for the calling thread, and the cards' memory mapped
// from /dev/mem. The ports themselves are read and written with inw and outw of <sys/io.h>.
//
// Used by the thread that drives the cards. The singleton holds the one mapping of the system;
// further objects serve where a thread needs only port permission. No operation throws; each
// failure is a console line and shows in the result.
#pragma once

#include <cstdint>

class DirectIO {
  public:
    // The single instance; made once, whichever thread asks first, and never destroyed.
    static DirectIO& getInstance();

    DirectIO() = default;
    // Releases nothing: the mapping and the permission stay.
    virtual ~DirectIO() = default;
    DirectIO(const DirectIO&) = delete;
    DirectIO& operator=(const DirectIO&) = delete;

    // Grants the calling thread the ports 0x300 to 0x31F. The kernel keeps permission by thread:
    // each thread that touches a port asks for itself, and dies of the first access otherwise.
    void allowPortAccess();
    // The same, unless the calling thread has asked before, with or without success. For a thread
    // that is about to touch ports and may find that another one has set up the cards.
    void ensurePortAccess();
    void disallowPortAccess();
    // Whether allowPortAccess succeeded on this object and was not taken back since.
    bool arePortsEnabled() const { return portsEnabled; }

    // What the last allowPortAccess or mapMemory of this object failed at, and the errno of it; 0
    // when it succeeded. For diagnosis: the console line has been written already.
    enum class Failure { kNone, kPortPermission, kMemoryDevice, kMemoryMapping };
    Failure getFailure() const { return failure; }
    int getFailureErrno() const { return failureErrno; }

    // Maps length bytes of physical memory from baseAddr, a multiple of the page size. Null on
    // failure, with the recorded mapping unchanged. A further mapping replaces the recorded one
    // without unmapping it.
    void* mapMemory(unsigned long baseAddr, unsigned long length);
    // Removes the recorded mapping and forgets it; nothing happens when there is none.
    void unmapMemory();
    // The recorded mapping, or null.
    void* getPreviouslyMappedMemory() const { return baseMemory; }

  private:
    void note(Failure what, int error);

    static DirectIO* sInstance;

    bool portsEnabled = false;
    void* baseMemory = nullptr;
    std::uint32_t memoryLength = 0;  // bytes
    Failure failure = Failure::kNone;
    int failureErrno = 0;
};
