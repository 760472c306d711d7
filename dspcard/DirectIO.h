// The way to the hardware: port permission for the calling thread, and the cards' memory mapped
// from /dev/mem. The ports themselves are read and written with inw and outw of <sys/io.h>.
//
// Mapping the memory also claims the cards for this process: two drivers would reset each other's
// DSPs and share their buffers. The claim is a lock on that part of /dev/mem; it ends with the
// process, however that ends.
//
// Used by the thread that drives the cards. The singleton holds the one mapping of the system;
// further objects serve where a thread needs only port permission. No operation throws; each
// failure is a console line and shows in the result, but for cards that another process has: who
// it is the caller tells.
#pragma once

#include <cstdint>
#include <string>

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
    // The same, but asks once for each thread: nothing happens when the calling one has asked
    // before, with or without success. For a thread that is about to touch ports and may find that
    // another one has set up the cards.
    void askForPortAccessOnce();
    void disallowPortAccess();
    // Whether allowPortAccess succeeded on this object and was not taken back since.
    bool arePortsEnabled() const { return portsEnabled; }

    // What the last allowPortAccess or mapMemory of this object failed at, and the errno of it; 0
    // when it succeeded. For diagnosis: the console line has been written already.
    enum class Failure { kNone, kPortPermission, kMemoryDevice, kMemoryInUse, kMemoryMapping };
    Failure getFailure() const { return failure; }
    int getFailureErrno() const { return failureErrno; }

    // Who has the memory, after kMemoryInUse: "process 1234 (java)", or "another process".
    const std::string& getHolder() const { return holder; }

    // Claims and maps length bytes of physical memory from baseAddr, a multiple of the page size.
    // Null on failure, with the recorded mapping unchanged; when another process has that memory,
    // without a console line. A further mapping replaces the recorded one without unmapping it.
    void* mapMemory(unsigned long baseAddr, unsigned long length);
    // Removes the recorded mapping and forgets it; nothing happens when there is none. The claim
    // stays.
    void unmapMemory();
    // The recorded mapping, or null.
    void* getPreviouslyMappedMemory() const { return baseMemory; }

  private:
    void note(Failure what, int error);
    bool claim(int memory, unsigned long baseAddr, unsigned long length);

    static DirectIO* sInstance;

    bool portsEnabled = false;
    void* baseMemory = nullptr;
    std::uint32_t memoryLength = 0;  // bytes
    Failure failure = Failure::kNone;
    int failureErrno = 0;
    std::string holder;
};
