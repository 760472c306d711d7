// What each pass of the cycle costs on the bus: its port accesses, and every access to card memory
// with its width. The card memory is closed, so each instruction that touches it faults and is
// noted; then the memory is open for this one instruction, by single step. Nothing escapes, as the
// driver has one thread here, and what is not a plain 16-bit move counts as being of no width.
#include <signal.h>
#include <sys/mman.h>

#include "BoardMgr.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "model/TransferLayout.h"
#include "pc/SimulatedPc.h"

namespace {

constexpr greg_t kSingleStep = 0x100;
char* memory = nullptr;
std::vector<PortAccess>* bus;  // with memory: 'R' or 'W', offset, width
struct sigaction previousAction;

int widthOf(const unsigned char* move) {
    const bool isWord = *move == 0x66;
    move += (isWord ? 1 : 0) + ((move[isWord] & 0xF8) == 0x40 ? 1 : 0);  // 0x4x: which registers
    return (isWord ? (*move & 0xFD) == 0x89 : move[0] == 0x0F && move[1] == 0xB7) ? 2 : 0;
}
void openForOneStep(int signal, siginfo_t* info, void* context) {
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    if (info->si_code != SEGV_ACCERR) {
        return previousAction.sa_sigaction(signal, info, context);  // a port access
    }
    bus->emplace_back((registers[REG_ERR] & 2) != 0 ? 'W' : 'R',
                      static_cast<char*>(info->si_addr) - memory,
                      widthOf(reinterpret_cast<unsigned char*>(registers[REG_RIP])));
    mprotect(memory, 0x4000, PROT_READ | PROT_WRITE);
    registers[REG_EFL] |= kSingleStep;
}
void closeAgain(int, siginfo_t*, void* context) {
    mprotect(memory, 0x4000, PROT_NONE);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kSingleStep;
}

constexpr int kStatusPorts[] = {0x302, 0x304, 0x312, 0x314};
constexpr int kFirstExchange = 8;  // six buffers are released untouched
constexpr int kHandedOver[] = {-1, 0, 1, 2, 3, 0, 0, -1, 0, 1, 2, 3};  // by pass; -1: none

class BusEconomy : public testing::TestWithParam<int>, public ScriptedCards {
  protected:
    bool sleep(std::uint64_t) override { return bus == nullptr || endPass(); }
    bool endPass() {
        EXPECT_EQ(needed(kHandedOver[pass]), std::exchange(accesses, {})) << pass;
        if (++pass == std::size(kHandedOver)) {
            throw cardsim::PowerOff();
        }
        registers = {{kStatusPorts[kHandedOver[pass] & 3], kHandedOver[pass] >= 0}};
        return true;
    }
    std::vector<PortAccess> needed(int buffer) const {
        const int lines = buffer < 2 ? GetParam() : 12 - GetParam();
        const auto& layout = cardsim::layoutOf(lines);
        const bool isServed = pass >= kFirstExchange && buffer >= 0;
        const bool isPlayer = lines == 4 || buffer < 2;
        const int playback = (buffer ^ 1) * 0x1000 + 2 * layout.playbackAudio;
        std::vector<PortAccess> all;
        const auto poll = [&](int from, int to) {
            for (int i = from; i <= to; ++i) {
                all.push_back(reads(kStatusPorts[i], i == buffer));
            }
        };
        poll(0, buffer < 0 ? 3 : buffer);
        for (int i = 0; isServed && i < layout.words; ++i) {
            all.emplace_back('R', buffer * 0x1000 + 2 * i, 2);
        }
        for (int i = 0; isServed && isPlayer && i < layout.audioWords; ++i) {
            all.emplace_back('W', playback + 2 * i, 2);
        }
        poll(buffer & 2, isServed ? buffer : -1);  // whether it is still held out
        if (buffer >= 0) {
            poll(buffer, buffer);
            all.push_back(writes(kStatusPorts[buffer], 0x1A));
        }
        return all;
    }
    std::size_t pass = 0;
};

TEST_P(BusEconomy, TouchesEachWordOnceAndNoPortMoreThanAPassNeeds) {
    registers[GetParam() == 8 ? 0x302 : 0x312] = 4;  // eight channels
    echoes = {0x300, 0x310};
    const Console console;
    memory = BoardMgr::getInstance().getDSPMemory();
    registers.clear();
    (bus = &accesses)->clear();
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = openForOneStep;
    sigaction(SIGSEGV, &action, &previousAction);
    action.sa_sigaction = closeAgain;
    sigaction(SIGTRAP, &action, nullptr);
    mprotect(memory, 0x4000, PROT_NONE);
    EXPECT_THROW(BoardMgr::getInstance().readWriteDSPs(), cardsim::PowerOff);
}
INSTANTIATE_TEST_SUITE_P(Cards, BusEconomy, testing::Values(4, 8));

}  // namespace
