// The transfer buffers that host and DSP share in card memory: a hardware format, packed on 2-byte
// boundaries, little-endian, 32-bit fields with the low word first. Plain structures without
// behaviour; the host works on copies of them and moves card memory in 16-bit words only.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 2)

// One line port. Bit 15 of voiceLevel is the voice-activity (VOX) trigger, bits 0 to 14 the level.
// DTMFBuffer and CLIBuffer start with a signed count of the characters that follow.
struct DSPPortDataFourChannel {
    std::uint16_t voiceLevel;
    std::uint16_t offHook;  // not read by the host: the line-status ports tell
    std::uint16_t triggered;
    std::uint16_t ringing;
    std::uint16_t voiceBuffer[300];
    char DTMFBuffer[50];
    char CLIBuffer[50];
};

struct DSPPortDataEightChannel {
    std::uint16_t voiceLevel;
    std::uint16_t offHook;
    std::uint16_t triggered;
    std::uint16_t ringing;
    std::uint16_t voiceBuffer[150];
    char DTMFBuffer[30];
    char CLIBuffer[50];
};

// The settings of one port. Despite its name, trigType holds a trigger level word.
struct DSPCommandSettings {
    std::uint16_t beepType;
    std::uint16_t trigType;
    std::uint16_t trigDelay_ms;
};

// Host to DSP. One entry more than the card has ports; the last stays zero, as does portNumber.
struct DSPCommandFourChannel {
    std::uint16_t instruction;
    std::uint16_t portNumber;
    union {
        DSPCommandSettings settings[5];
        std::uint16_t data[15];
    };
};

struct DSPCommandEightChannel {
    std::uint16_t instruction;
    std::uint16_t portNumber;
    union {
        DSPCommandSettings settings[9];
        std::uint16_t data[27];
    };
};

struct DSPDebugBuffer {
    std::uint16_t size;
    std::uint16_t data[249];
};

// bufferCounter advances by one for every buffer that the DSP hands over, over both buffers of the
// card. Of playbackPortData only voiceBuffer is used, for the card's audio output.
struct DSPTransferFourChannel {
    std::uint32_t bufferCounter;
    DSPCommandFourChannel command;
    DSPPortDataFourChannel recordingPortData[4];
    DSPPortDataFourChannel playbackPortData;
    std::uint16_t debugLength;  // valid words in debugData
    std::uint16_t debugData[249];
};

struct DSPTransferEightChannel {
    std::uint32_t bufferCounter;
    DSPCommandEightChannel command;
    DSPPortDataEightChannel recordingPortData[8];
    DSPPortDataEightChannel playbackPortData;
};

#pragma pack(pop)

// Command codes. A block without a command is never written to the card.
constexpr std::uint16_t kNoCommand = 0;
constexpr std::uint16_t kApplyLineSettings = 2;

// By size and place of each field that the host uses; what lies between follows from them.
static_assert(sizeof(DSPPortDataFourChannel) == 708 &&
              offsetof(DSPPortDataFourChannel, CLIBuffer) == 658);
static_assert(sizeof(DSPPortDataEightChannel) == 388 &&
              offsetof(DSPPortDataEightChannel, CLIBuffer) == 338);
static_assert(sizeof(DSPCommandSettings) == 6 && sizeof(DSPDebugBuffer) == 500);
static_assert(sizeof(DSPCommandFourChannel) == 34 &&
              offsetof(DSPCommandFourChannel, settings) == 4);
static_assert(sizeof(DSPCommandEightChannel) == 58 &&
              offsetof(DSPCommandEightChannel, settings) == 4);
static_assert(sizeof(DSPTransferFourChannel) == 4078 &&
              offsetof(DSPTransferFourChannel, command) == 4 &&
              offsetof(DSPTransferFourChannel, recordingPortData) == 38 &&
              offsetof(DSPTransferFourChannel, playbackPortData) == 2870 &&
              offsetof(DSPTransferFourChannel, debugLength) == 3578 &&
              offsetof(DSPTransferFourChannel, debugData) == 3580);
static_assert(sizeof(DSPTransferEightChannel) == 3554 &&
              offsetof(DSPTransferEightChannel, command) == 4 &&
              offsetof(DSPTransferEightChannel, recordingPortData) == 62 &&
              offsetof(DSPTransferEightChannel, playbackPortData) == 3166);
