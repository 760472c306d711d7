// cardcheck: every trouble is put down to its own cause, and shows in the exit status.
#include <linux/capability.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>

#include <sstream>

#include "Cards.h"
#include "DirectIO.h"
#include "LoadFiles.h"
#include "Machine.h"
#include "ScriptedCards.h"
#include "Surroundings.h"

namespace {

using namespace cardcheck;
using namespace testing;

// Card memory whose second half forgets: it is closed, opened for the one instruction that writes,
// and filled anew.
alignas(0x1000) char memory[0x4000];

void setStep(void* context, bool on) {
    greg_t& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
    flags = on ? flags | 0x100 : flags & ~0x100;
}
void letWrite(int, siginfo_t* info, void* context) {
    mprotect(memory + 0x2000, 0x2000, PROT_READ | PROT_WRITE);
    info->si_code == SEGV_ACCERR ? setStep(context, true) : std::abort();
}
void forget(int, siginfo_t*, void* context) {
    std::fill(memory + 0x2000, std::end(memory), '\xAB');
    mprotect(memory + 0x2000, 0x2000, PROT_READ);
    setStep(context, false);
}

// This process goes on as a user without any privilege would.
void giveUpPrivileges() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(0, syscall(SYS_capset, &header, none));
}

TEST(CardCheck, PutsARefusalDownToTheKernelTheUserOrTheLockdown) {
    const std::tuple<int, int, Rights, int, std::string, std::string> machines[] = {
        {ENOSYS, ENOENT, {0, true, ""}, 3, "this kernel has no port permission", "as root"},
        {EPERM, EPERM, {0, true, "integrity"}, 4, "0x31F refused: the kernel is lock", "as root"},
        {EPERM, EPERM, {0, true, "none"}, 3, "although root has CAP_SYS_RAWIO", "as root"},
        {EPERM, EPERM, {0, false, "none"}, 4, "root without CAP_SYS_RAWIO", "as root"},
        {EPERM, EACCES, {1000, false, "none"}, 4, "run it as root", "locked down"},
        {0,
         EACCES,
         {1000, true, "none"},
         2,
         "1000 may not read and write it: it is ",
         "locked down"},
        {0, 0, {1000, false, "integrity"}, 0, "integrity, but the ports are granted", "FAIL"},
    };
    for (const auto& [portsErrno, deviceErrno, rights, failures, cause, neverSaid] : machines) {
        const Console console;
        ScriptedCards cards;
        cards.portsErrno = portsErrno;
        cards.devPortErrno = cards.devMemErrno = deviceErrno;
        std::ostringstream rows;
        Report report(rows);
        checkMachine(report, rights);
        report.summarise();
        EXPECT_THAT(rows.str(), AllOf(HasSubstr(" " + std::to_string(failures) + " failed,"),
                                      HasSubstr(cause), Not(HasSubstr(neverSaid))));
        EXPECT_EQ(deviceErrno != 0, Matches(HasSubstr("FAIL  /dev/mem: "))(rows.str()));
    }
}

TEST(CardCheck, NamesTheBarThatADeviceIsBehind) {
    const WorkingFolder folder;
    WorkingFolder::write("device", "");
    const Device device = {"device", "c 1 4", "CONFIG_X"};
    const gid_t own = getegid() == 0 ? 1 : getegid();
    ASSERT_TRUE(chown("device", geteuid(), own) == 0);
    const std::tuple<int, mode_t, Rights, std::string> bars[] = {
        {ENOENT, 0, {}, "mknod device c 1 4 && chgrp "},
        {EACCES, 0640, {54321, true, "", {own}}, "chmod 0660 device, as the package's"},
        {EACCES, 0660, {54321, true, "", {}}, "let the user into that group: adduser 54321 "},
        {EACCES, 0660, {54321, true, "", {own}}, "54321 may read and write it ("},
        {EACCES, 0600, {0, true, "", {}}, "DeviceAllow=device rw"},
        {EPERM, 0600, {0, true, "none", {}}, "root has CAP_SYS_RAWIO: the device policy"},
        {EPERM, 0600, {0, true, "integrity", {}}, "switch Secure Boot off"},
    };
    for (const auto& [error, mode, rights, text] : bars) {
        chmod("device", mode);
        const Refusal refusal = refusalOfDevice(rights, error, device);
        EXPECT_THAT(refusal.cause + "; " + refusal.fix, HasSubstr(text));
    }
    std::filesystem::create_directory("7");
    WorkingFolder::write("7/cgroup", "1:name=x:/\n0::/system.slice/dspcard-record.service\n");
    EXPECT_THAT(fixOfCardsInUse("process 7 (java)", "."), StartsWith("systemctl stop dspcard-rec"));
    EXPECT_THAT(fixOfCardsInUse("process 8 (java)", "."), StartsWith("end process 8 (java), then"));
}

TEST(CardCheck, TellsWhatTheUserLacks) {
    const Console console;
    const WorkingFolder folder;
    const ScriptedCards cards;
    WorkingFolder::write("LOAD_X.TXT", "");
    chmod("LOAD_X.TXT", 0200);
    std::ostringstream rows;
    Report report(rows);
    checkMachine(report, {0, true, "", {}, true, true});
    EXPECT_THAT(rows.str(), AllOf(HasSubstr("PASS  real-time"), HasSubstr("PASS  locked memory")));
    giveUpPrivileges();
    for (const auto resource : {RLIMIT_RTPRIO, RLIMIT_MEMLOCK}) {
        const rlimit limit = {0, 0};
        setrlimit(resource, &limit);
    }
    checkMachine(report, readRights());
    checkLoadFiles(report, {}, {});
    chmod(".", 0300);
    checkLoadFiles(report, {}, {});
    chmod(".", 0700);
    report.summarise();
    EXPECT_THAT(rows.str(), AllOf(HasSubstr("without CAP_SYS_RAWIO"), HasSubstr("WARN  real-time"),
                                  HasSubstr("WARN  locked memory"), HasSubstr("2 warnings\n"),
                                  HasSubstr("LOAD_X.TXT cannot be read: it is "),
                                  HasSubstr(" 0200\nFix: let"), HasSubstr(" 0300\nFix: let")));
}

TEST(CardCheck, TellsOfEachCardWhatIsWrongWithItAndWhatWasNotTried) {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = letWrite;
    sigaction(SIGSEGV, &action, nullptr);
    action.sa_sigaction = forget;
    sigaction(SIGTRAP, &action, nullptr);
    mprotect(memory + 0x2000, 0x2000, PROT_READ);
    const Console console;
    ScriptedCards cards;
    cards.accessTime_us = 1000;
    cards.echoes = {0x300, 0x310};
    cards.registers = {{0x302, 0x20}, {0x312, 0xFFFF}};  // card 1 is gone after its echo
    DirectIO::getInstance().allowPortAccess();
    std::ostringstream rows;
    Report report(rows);
    checkCards(report, {true, true, false, memory}, true);
    EXPECT_THAT(rows.str(), AllOf(HasSubstr("PASS  memory of card 0: "),
                                  HasSubstr("SKIP  firmware of card 0: not started here"),
                                  HasSubstr("FAIL  memory of card 1: does not keep what is written "
                                            "at 0xD2000, a word reads 0xABAB\n"
                                            "Fix: set the card's memory address to 0xD2000,"),
                                  HasSubstr("FAIL  boot of card 1: out of reset the card reads all "
                                            "ones"),
                                  Not(HasSubstr("firmware of card 1"))));
}

TEST(CardCheck, FindsEveryMistakeInALoadFile) {
    const WorkingFolder folder;
    WorkingFolder::write("A.BIN", {'\2', '\0', '\xFF', '\xFF', '\7'});
    WorkingFolder::write("b.bin", "words");
    const std::string header = "header\nheader\n", good = "h0080 h0002 A.BIN code\n";
    const std::pair<std::string, std::string> cases[] = {
        {header + good, "PASS  LOAD_X.TXT record 1: A.BIN, 2 words to 0x0080, checksum 1\n"},
        {header + good + "h0200 h0003 A.BIN code", "record 2: A.BIN ends after 2 words of 3\n"},
        {header + "h0080 h0002 B.BIN code", "no B.BIN, but b.bin\nFix: mv b.bin B.BIN\n"},
        {header + "h0080 h0002 . code", ". is not a regular file\n"},
        {header + "h0080 h0002 C.BIN code", "no C.BIN in /"},
        {header + good + "h0200 h0002 A.BIN", "not whole, with 3 tokens of 4"},
        {header + "code h0002 A.BIN c", "address is not hexadecimal"},
        {header + "h000080 h0002 A.BIN c", "address is longer than 6 characters"},
        {header + "h0080 h10000 A.BIN c", "size is above FFFF"},
        {header + "h0080 h0002 A.BIN sixteen-letters-", "comment is longer than 15"},
        {header + "h0080 h0002 a-name-of-thirty-two-characters. c", "name is longer than 31"},
        {header + "1080 h0002 A.BIN c", "address, 1, is dropped, which leaves 0x0080"},
        {header + "h10080 h0002 A.BIN c", "0x10080 is above FFFF"},
        {header + "h0080 h0000 A.BIN c", "size 0 ends the boot"},
        {header, "no record after the two header lines"},
        {"header\n" + good.substr(0, 10), "ends within its two header lines"},
    };
    for (const auto& [content, row] : cases) {
        WorkingFolder::write("LOAD_X.TXT", content);
        std::ostringstream rows;
        Report report(rows);
        checkLoadFiles(report, {}, {});
        EXPECT_THAT(rows.str(), HasSubstr(row));
        EXPECT_EQ(row[0] != 'P', report.hasFailed()) << content;
    }
}

TEST(CardCheck, AnswersForWhatItFoundWithItsExitStatus) {
    const std::string check = " -- " CARDCHECK " --reset-cards", sim = CARDSIM " --virtual-time ";
    const std::tuple<std::string, int, std::string> runs[] = {
        {sim + "--cards 4,8" + check, 0, "PASS  memory of card 1"},
        {CARDSIM " --cards 8" + check, 0, "SKIP  card 1: none: nobody answers at 0x310"},
        {sim + "--cards none,4" + check, 1,
         "I/O address of this card to 0x300 and its memory address to 0xD0000"},
        {sim + "--cards 4,8 --fault wrong-echo@1-3/0" + check, 1, "0x300 at times only\n"},
        {sim + "--fault wrong-echo" + check, 1, "0x300 (wrote 0x55, read 0xAA): another device"},
        {"cd / && " + sim + "--cards 4" + check, 1, "FAIL  LOAD_4CH.TXT: no LOAD_4CH.TXT in /"},
        {CARDCHECK " --files-only", 0, "LOAD_4CH.TXT: 3 records, 548 words, checksum 24883"},
        {CARDCHECK " --files-only nowhere LOAD_4CH.TXT", 1, "cardcheck: 4 passed, 1 failed, 1 sk"},
        {sim + "--fault byte-stuck@1/0 --cards 4,8" + check, 1,
         "boot of card 0: out of reset the DSP does not t"},
        {sim + "--fault byte-refused@1/1 --cards 4,8" + check, 1,
         "boot of card 1: out of reset the DSP never as"},
        {sim + "-- " CARDCHECK " </dev/null", 2, "SKIP  cards: not touched: no go-ahead for"},
        {CARDCHECK " </dev/null", 1, "FAIL  port permission"},
        {CARDCHECK " --files-only --reset-cards", 2, "does not go with"},
        {CARDCHECK " --file", 2, "Try: cardcheck --help"},
        {CARDSIM " -- sh -c '../bin/main >/dev/null 2>&1 & sleep 0.7; " CARDCHECK " --reset-cards;"
                 " status=$?; kill $!; exit $status'",
         1, "SKIP  cards: not touched: another process has them"},
        {"../bin/main --help", 0, "Usage: main"},
        {"../bin/main 4", 2, "Usage: main"},
    };
    std::filesystem::current_path(FIRMWARE_FOLDER);
    for (const auto& [command, status, text] : runs) {
        Console console;
        EXPECT_EQ(status, WEXITSTATUS(std::system(command.c_str()))) << command;
        EXPECT_THAT(console.take().out + console.err, HasSubstr(text)) << command;
    }
}

}  // namespace
