#include "DSPRunner.h"

#include <cstdlib>
#include <exception>
#include <iostream>

#include "../BoardMgr.h"
#include "../Console.h"
#include "../ConsoleLine.h"
#include "../DirectIO.h"
#include "../MadeOnce.h"
#include "../Precedence.h"

namespace {

constexpr char kThreadFailed[] = "the thread that serves the cards failed";

}  // namespace

DSPRunner* DSPRunner::pInstance = nullptr;

DSPRunner& DSPRunner::getInstance() {
    return madeOnce(pInstance, [] { return new DSPRunner; });
}

DSPRunner::DSPRunner() : pt::thread(false) {}

void DSPRunner::startDSPs() {
    start();
}

// An exception would end the process without a word of why.
void DSPRunner::execute() {
    try {
        console::handOverLinesOfThisThread();
        takePrecedence();
        driveCards();
    } catch (const std::exception& failure) {
        console::tellLast(kThreadFailed, failure.what());
    } catch (...) {
        console::tellLast(kThreadFailed, "unknown exception");
    }
    std::abort();
}

void DSPRunner::driveCards() {
    ConsoleLine(std::cerr) << "JNI calling bootload ";
    BoardMgr& boardMgr = BoardMgr::getInstance();
    DirectIO::getInstance().askForPortAccessOnce();  // a client's call may have made the manager
    boardMgr.bootload();
    ConsoleLine(std::cerr) << "JNI calling readWriteDSPs()";
    boardMgr.readWriteDSPs();
}

void DSPRunner::cleanup() {}
