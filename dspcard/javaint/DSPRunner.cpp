#include "DSPRunner.h"

#include <iostream>
#include <mutex>

#include "../BoardMgr.h"
#include "../ConsoleLine.h"

DSPRunner* DSPRunner::pInstance = nullptr;

DSPRunner& DSPRunner::getInstance() {
    static std::once_flag made;
    std::call_once(made, [] { pInstance = new DSPRunner; });
    return *pInstance;
}

DSPRunner::DSPRunner() : pt::thread(false) {}

void DSPRunner::startDSPs() {
    start();
}

void DSPRunner::execute() {
    ConsoleLine(std::cerr) << "JNI calling bootload ";
    BoardMgr& boardMgr = BoardMgr::getInstance();
    DirectIO::getInstance().ensurePortAccess();  // a client's call may have made the manager
    boardMgr.bootload();
    ConsoleLine(std::cerr) << "JNI calling readWriteDSPs()";
    boardMgr.readWriteDSPs();
}

void DSPRunner::cleanup() {}
