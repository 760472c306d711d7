#include "Precedence.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>

void takePrecedence() {
    sched_param priority{};
    priority.sched_priority = sched_get_priority_min(SCHED_FIFO);
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
    // On fault: a Java heap that was reserved and never used does not come into memory.
    mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT);
}
