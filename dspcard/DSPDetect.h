// Finds out which of the two cards are installed and how many lines each has, through /dev/port,
// where the byte at file offset N is I/O port N. Needs no port permission, only the right to open
// that device.
//
// Lives for one detection run on the thread that creates the board manager; nothing else may touch
// the cards meanwhile. A card that was tested is left with its DSP held in reset. Board numbers are
// 0 and 1. Nothing throws; each failure is a console line and a result.
#pragma once

#include "FileDescriptor.h"

class DSPDetect {
  public:
    static constexpr int kAbsent = -2;  // the channels of a card that was not found

    DSPDetect();
    ~DSPDetect() = default;  // closes the port device
    DSPDetect(const DSPDetect&) = delete;
    DSPDetect& operator=(const DSPDetect&) = delete;

    // Number of boards found, 0 to 2. Each count becomes the card's channels (4 or 8; 0 when they
    // cannot be read), or -2 when the card is absent. Board 1 counts only beside board 0, which is
    // asked again then: if it answers only at that second time, the count is 2 and its channels
    // stay -2. vmem is not used.
    int detectBoards(int& channelsBoard0, int& channelsBoard1, void* vmem);

    // Whether the card answers at its data port. Resets its DSP.
    bool portTest(int brd);
    // The same, and what was seen.
    struct Echo {
        bool isRight = false;
        int written = 0;  // the byte that was written last; 0 when none was
        int read = 0;     // what the data port then read as
    };
    Echo testEcho(int brd);
    bool isPresent(void* vmem, int brd);
    // 8, 4, or 0 when /dev/port cannot be opened or brd is no board. A status port that cannot be
    // read counts as 8.
    int numChannels(int brd);

    // Opens /dev/port, which touches no port. False with errno set when it cannot be opened.
    // Operations that test or count do this by themselves.
    bool openPortDevice();

    // Checks beyond detection, for diagnosis. vmem is the mapped memory of both cards.
    bool simpleMemTest(void* vmem, int brd);
    bool memTest(void* vmem, int brd);

    // One byte of an I/O port, -128 to 127, or -1 on failure too.
    int readPort(int portNum);
    // Writes the low 8 bits of value.
    void writePort(short value, int portNum);

  private:
    Echo echoOfFirstPattern(int basePort);
    Echo echoOf(unsigned char pattern, int basePort);

    FileDescriptor portFd;
};
