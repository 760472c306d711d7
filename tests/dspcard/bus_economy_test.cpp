// What an exchange costs on the bus: its port accesses, and every access to card memory with its
// width. The card memory is closed, so each instruction that touches it faults and is noted; then
// the memory is open for this one instruction, by single step. Nothing escapes, as the driver has
// one thread here, and what is not a plain 16-bit move counts as being of no width.
#include <signal.h>
#include <sys/mman.h>

#include "BoardMgr.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "model/TransferLayout.h"
#include "traps/Registers.h"

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
    bus->emplace_back(
        (registers[REG_ERR] & 2) != 0 ? 'W' : 'R', static_cast<char*>(info->si_addr) - memory,
        widthOf(reinterpret_cast<unsigned char*>(registers[cardsim::kInstructionPointer])));
    mprotect(memory, 0x4000, PROT_READ | PROT_WRITE);
    registers[REG_EFL] |= kSingleStep;
}
void closeAgain(int, siginfo_t*, void* context) {
    mprotect(memory, 0x4000, PROT_NONE);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kSingleStep;
}

TEST(BusEconomy, TouchesEachWordOnceAndNoPortMoreThanAnExchangeNeeds) {
    ScriptedCards cards;
    cards.registers = {{0x302, 4}};  // eight channels
    cards.echoes = {0x300, 0x310};
    const Console console;
    const BoardMgr& manager = BoardMgr::getInstance();
    memory = manager.getDSPMemory();
    bus = &cards.accesses;
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = openForOneStep;
    sigaction(SIGSEGV, &action, &previousAction);
    action.sa_sigaction = closeAgain;
    sigaction(SIGTRAP, &action, nullptr);
    mprotect(memory, 0x4000, PROT_NONE);
    for (const int buffer : {0, 1, 2, 3}) {
        const auto& layout = cardsim::layoutOf(buffer < 2 ? 8 : 4);
        const int first = 0x302 + buffer / 2 * 0x10, playback = (buffer ^ 1) * 0x1000;
        std::vector<PortAccess> needed;
        for (int i = 0; i < layout.words; ++i) {
            needed.emplace_back('R', buffer * 0x1000 + 2 * i, 2);
        }
        for (int i = 0; i < layout.audioWords; ++i) {
            needed.emplace_back('W', playback + 2 * (layout.playbackAudio + i), 2);
        }
        for (int i = 0; i <= buffer % 2; ++i) {  // whether it is still held out
            needed.push_back(reads(first + 2 * i, i == buffer % 2));
        }
        cards.registers = {{first + buffer % 2 * 2, 1}};
        cards.accesses.clear();
        manager.getBoard(buffer / 2)->doReadWrite(buffer, nullptr);
        EXPECT_EQ(needed, cards.accesses) << buffer;
    }
}

}  // namespace
