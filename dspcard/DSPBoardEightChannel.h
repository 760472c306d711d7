// A card with eight telephone lines. Boots from "LOAD_8CH.TXT"; moves 300 bytes of audio for each
// line in each transfer; is sent playback audio on board 0 only. Two lines share a line-status
// word, with the sense of off hook opposite to that of the four-channel card.
#pragma once

#include "DSPTransferBoard.h"

class DSPBoardEightChannel final
    : public DSPTransferBoard<DSPBoardEightChannel, DSPTransferEightChannel> {
  public:
    using DSPTransferBoard::DSPTransferBoard;

    bool readOffHook(int channel) override;
    std::uint16_t getTriggerLevel(TriggerType tType) override;

    static constexpr char kLoadFileName[] = "LOAD_8CH.TXT";

  private:
    friend DSPTransferBoard;

    static constexpr char kClassName[] = "DSPBoardEightChannel";
    static constexpr char kTooSlowMessage[] = "ReadWrite Too Slow, Buffer already changed";

    bool writesPlayback() const { return boardNumber == 0; }
    void announceMonitorCopy() const {}
    void announceDigits(int, int) const {}
    void checkMonitorSource(bool monitoring) const;
    void printVOX(ConsoleLine& line, int port);

    // Two lines share a status word: a bit of the even one, or the same of the odd one.
    bool readLineBit(int channel, std::uint16_t evenBit, std::uint16_t oddBit) const;
};

extern template class DSPTransferBoard<DSPBoardEightChannel, DSPTransferEightChannel>;
