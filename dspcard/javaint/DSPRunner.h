// The runner thread: makes the board manager, unless a call of the client has made it before,
// boot-loads the cards and runs the read/write cycle until the process ends. It is never stopped,
// joined or destroyed. From the boot on, everything that touches a port or card memory happens on
// it.
#pragma once

#include <pasync.h>

class DSPRunner : public pt::thread {
  public:
    // The single instance, not started; made once, whichever thread asks first.
    static DSPRunner& getInstance();

    // Starts the thread and returns at once; does nothing when it has been started before.
    void startDSPs();

    ~DSPRunner() override = default;

  protected:
    void execute() override;
    void cleanup() override;

  private:
    DSPRunner();

    [[noreturn]] static void driveCards();

    static DSPRunner* pInstance;
};
