// A card with four telephone lines. Boots from "LOAD_4CH.TXT"; moves 600 bytes of audio for each
// line in each transfer; is sent playback audio on either board; carries debug words of the DSP in
// its transfer buffer.
#pragma once

#include "DSPTransferBoard.h"

class DSPBoardFourChannel final
    : public DSPTransferBoard<DSPBoardFourChannel, DSPTransferFourChannel> {
  public:
    static constexpr char kLoadFileName[] = "LOAD_4CH.TXT";

    using DSPTransferBoard::DSPTransferBoard;

    // Writes the debug words of the last buffer to standard output; for diagnosis.
    void printDebugBuffer() const;

  private:
    friend DSPTransferBoard;

    static constexpr char kClassName[] = "DSPBoardFourChannel";
    static constexpr char kTooSlowMessage[] = "Too Slow! Buffer already change";

    bool writesPlayback() const { return true; }
    void announceMonitorCopy() const;
    void announceDigits(int port, int n) const;
    void checkMonitorSource(bool) const {}
    void printVOX(ConsoleLine& line, int port);
};

extern template class DSPTransferBoard<DSPBoardFourChannel, DSPTransferFourChannel>;
