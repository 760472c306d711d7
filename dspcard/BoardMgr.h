// Owner of the cards: finds them when it is made, boot-loads them, runs the read/write cycle that
// exchanges their transfer buffers, and decides which command each board receives.
//
// Made by the first getInstance, in normal operation on the thread that then drives the cards and
// so needs the port permission that the set-up obtains; where another thread made it, the driving
// thread gets permission of its own (DirectIO::askForPortAccessOnce). It alone calls bootload and
// readWriteDSPs. The client's threads may switch recording, monitoring and playback and ask for
// boards at any time; what they switch takes effect at the next exchange. Boards, their number and
// their kinds never change. Card 0 is also the playback board.
#pragma once

#include <atomic>
#include <memory>

#include "DSPBoard.h"
#include "DirectIO.h"
#include "javaint/Packet.h"

class BoardMgr {
  public:
    static constexpr int kMaxBoards = 2;
    static constexpr int kMonitorNothing = -1;

    // The single instance; made once, whichever thread asks first, and never destroyed in a
    // running system.
    static BoardMgr& getInstance();

    BoardMgr(const BoardMgr&) = delete;
    BoardMgr& operator=(const BoardMgr&) = delete;

    // Boot-loads the boards in order up to the first that fails; true when none did, also when
    // there are no boards.
    virtual bool bootload();
    // Unmaps the card memory and deletes the boards.
    virtual ~BoardMgr();

    // The mapped memory of both cards; null when it could not be mapped.
    char* getDSPMemory() const { return dspCardsMem; }
    // 0 to 2.
    int getNumberOfBoards() const { return numBoards; }
    // Null when there is no such board. Boards stay with the manager.
    DSPBoard* getBoard(int boardNumber) const;
    DSPBoard* getPlaybackBoard() const { return boards[0].get(); }

    // Off also empties the monitor buffer.
    void setEnablePlayback(bool playback);
    // A global channel, or kMonitorNothing, which also empties the monitor buffer. With a channel
    // that no card has, card 0 plays only what the client sends.
    void setMonitorChannel(int channel);
    void enableDebug(bool debug);
    // While recording, triggers, digits and callers are reported; audio is reported always.
    void startRecording();
    void stopRecording();
    bool isRecording() const { return recording.load(std::memory_order_relaxed); }

    // The lowest buffer that a DSP has handed over; when there is none, false, and board and
    // buffer stay as they were.
    bool getLockedBuffer(int& board, int& buffer) const;
    void unlockBuffer(int buffer) const;
    // Polls the cards for ever and exchanges the buffers that they hand over.
    [[noreturn]] void readWriteDSPs();

  private:
    BoardMgr();

    // Nothing calls them: the runner thread has its own.
    virtual void execute();
    virtual void cleanup();

    void setUpCards();
    void makeBoards(int channelsBoard0, int channelsBoard1);
    std::unique_ptr<DSPBoard> makeBoard(int boardNumber, int channels, int firstChannel) const;
    void switchRecording(bool on);
    void releaseFirstBuffers();
    // Whether the board was found locked up.
    bool exchangeBuffer(int board, int buffer);
    void rebootCards();
    // The command for a board's exchange, or null; the caller owns it.
    std::unique_ptr<Packet> getNextCommand(int board);
    void copySettingsForOtherBoards(const LineSettingsPacket& settings);

    static BoardMgr* pInstance;

    std::unique_ptr<DSPBoard> boards[kMaxBoards];
    std::unique_ptr<Packet> pendingCommand[kMaxBoards];  // waits for the board's next exchange
    int numBoards = 0;
    DirectIO directIO;  // nothing uses it: the set-up goes through the singleton
    char* dspCardsMem = nullptr;
    std::atomic<bool> recording{false};
};
