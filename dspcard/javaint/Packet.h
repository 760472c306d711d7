// The packets: every message between the cards and the client.
//
// Event packets (types 1 to 4 and 7) are made on the thread that drives the cards and deleted by
// whoever takes them from the send queue. Command packets (types 5 and 6) are made from the
// client's bytes on the client's thread, copied for the second board, and deleted by the read/write
// cycle after the exchange of the board that received them. A packet has one owner at a time, holds
// no lock, and does not change once it has been queued.
//
// Channel numbers in packets are global: lines are numbered over both cards. They are carried as
// one byte, as are type codes and error codes.
#pragma once

#include <ptime.h>
#include <ptypes.h>

#include <algorithm>
#include <memory>

enum PacketType : int {
    PACKET_TRIGGER = 1,
    PACKET_CLI = 2,
    PACKET_DTMF = 3,
    PACKET_RECORDED_DATA = 4,
    PACKET_PLAYBACK_DATA = 5,
    PACKET_LINE_SETTINGS = 6,
    PACKET_ERROR = 7,
};

enum BeepType : unsigned char {
    BEEP_OFF = 0,
    BEEP_LOW = 1,
    BEEP_MID = 2,
    BEEP_HIGH = 3,
};

// What is wrong with a card, or with all of them; byte 0 of an ErrorPacket.
enum ErrorCode : int {
    ERROR_MISSED_TRANSFER = 1,
    ERROR_TOO_SLOW = 2,
    ERROR_LOCKED_UP = 3,
    ERROR_MEMORY_NOT_MAPPED = 4,
};

class Packet : public pt::unknown {
  public:
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    virtual int getType() const = 0;
    // Number of payload bytes, and the first of them; valid as long as the packet.
    virtual int getLength() const = 0;
    virtual unsigned char* getData() const = 0;
    // Fills the payload from length bytes, the inverse of getData and getLength. Only for packets
    // that are built from the client's bytes.
    virtual void read(unsigned char* theData, int length) = 0;
    // The text for log lines.
    virtual pt::string toString() const;

    // When the packet was made: milliseconds since 1970-01-01 00:00:00 UTC, by the system clock.
    pt::large getTimeStamp() const { return timestamp; }

  protected:
    Packet();

  private:
    const pt::large timestamp;
};

// A packet of one type.
template <PacketType TYPE>
class PacketOf : public Packet {
  public:
    int getType() const override { return TYPE; }
};

// A line became triggered (a call starts) or its trigger dropped (the call ends).
// Payload: 1 or 0, channel.
class TriggerPacket : public PacketOf<PACKET_TRIGGER> {
  public:
    TriggerPacket(bool startCall, int channel);

    int getLength() const override;
    pt::string toString() const override;
    unsigned char* getData() const override;
    // Fatal: triggers come from cards only.
    void read(unsigned char* data, int length) override;

  private:
    unsigned char data[2];
};

// What the packets with text share. Payload: a leading byte (channel or error code), n, n
// characters; n is at most 50 unless read says more.
template <PacketType TYPE, int CAPACITY>
class TextPacket : public PacketOf<TYPE> {
  public:
    int getLength() const override { return data[1] + kHeaderLength; }
    unsigned char* getData() const override { return const_cast<unsigned char*>(data); }
    // Fewer than 2 bytes give an empty packet; more than CAPACITY are cut, and so is the count.
    void read(unsigned char* theData, int length) override;

  protected:
    // Leading byte 0, no characters.
    TextPacket() : data{} {}
    // Keeps the first 50 of count characters.
    TextPacket(int leadingByte, const char* text, int count);

    int getLeadingByte() const { return data[0]; }
    pt::string characters() const;

  private:
    static constexpr int kHeaderLength = 2;
    static constexpr int kMaxCharacters = 50;

    unsigned char data[CAPACITY];
};

// A text that a line brought: channel, n, the characters.
template <PacketType TYPE>
class LineTextPacket : public TextPacket<TYPE, 128> {
  public:
    LineTextPacket() = default;
    LineTextPacket(const char* characters, int count, int channel)
        : TextPacket<TYPE, 128>(channel, characters, count) {}

    pt::string toString() const override;
    int getChannel() const { return this->getLeadingByte(); }
};
template <>
pt::string LineTextPacket<PACKET_CLI>::toString() const;
template <>
pt::string LineTextPacket<PACKET_DTMF>::toString() const;

// Caller identification.
class CLIPacket : public LineTextPacket<PACKET_CLI> {
    using LineTextPacket::LineTextPacket;
};

// DTMF digits.
class DTMFPacket : public LineTextPacket<PACKET_DTMF> {
    using LineTextPacket::LineTextPacket;
};

// Trouble with a card: error code, n, the first n characters of the message.
class ErrorPacket : public TextPacket<PACKET_ERROR, 300> {
  public:
    ErrorPacket() = default;
    ErrorPacket(int code, const char* message);

    pt::string toString() const override;
    int getCode() const { return getLeadingByte(); }
};

// The audio of every line of one board for one transfer, 2402 payload bytes: number of channels (4
// or 8), the board's first channel, then 600 (four channels) or 300 (eight) bytes for each port,
// as the DSP encoded them. The audio is zero until addAudioData fills it.
class RecordedDataPacket : public PacketOf<PACKET_RECORDED_DATA> {
  public:
    RecordedDataPacket(bool fourChannel, int firstChannel);

    // Copies one port's audio from data; null leaves that port's area as it was. A channel that
    // the board does not have is refused with a log line; one outside 0 to 15 is fatal.
    void addAudioData(int channel, unsigned char* data);

    int getLength() const override;
    unsigned char* getData() const override;
    // Fatal: audio is recorded by cards only.
    void read(unsigned char* data, int length) override;
    pt::string toString() const override;

  private:
    const int numberOfChannels;
    const int dataLengthPerChannel;
    const std::unique_ptr<unsigned char[]> channelData;
};

// Audio to be played out through card 0. Payload: 0 to 600 bytes in the card's encoding.
class PlaybackDataPacket : public PacketOf<PACKET_PLAYBACK_DATA> {
  public:
    PlaybackDataPacket() = default;

    // Keeps the first 600 bytes; a negative length counts as 0.
    void read(unsigned char* data, int len) override;
    int getLength() const override;
    unsigned char* getData() const override;
    pt::string toString() const override;

  private:
    unsigned char playbackData[600] = {};
    int length = 0;
};

// The settings of all 16 channels of the system. Payload: 48 bytes, for each channel its BeepType,
// its TriggerType and its trigger delay in seconds. A new packet holds the default settings.
class LineSettingsPacket : public PacketOf<PACKET_LINE_SETTINGS> {
  public:
    LineSettingsPacket();
    // A copy for a further board, stamped with the time of the copy.
    explicit LineSettingsPacket(const LineSettingsPacket* orig);

    // The settings of a channel, which must be 0 to 15.
    unsigned char getBeepType(int channel) const;
    unsigned char getTrigType(int channel) const;
    unsigned char getTrigDelaySecs(int channel) const;

    int getLength() const override;
    unsigned char* getData() const override;
    // Keeps the first 48 bytes; the entries that fewer bytes do not reach keep the defaults, so
    // that a line does not silently stop triggering.
    void read(unsigned char* theData, int length) override;
    pt::string toString() const override;

  private:
    unsigned char data[48];
};

template <PacketType TYPE, int CAPACITY>
TextPacket<TYPE, CAPACITY>::TextPacket(int leadingByte, const char* text, int count) : data{} {
    const int kept = std::clamp(count, 0, kMaxCharacters);
    data[0] = static_cast<unsigned char>(leadingByte);
    data[1] = static_cast<unsigned char>(kept);
    std::copy_n(text, kept, data + kHeaderLength);
}

template <PacketType TYPE, int CAPACITY>
void TextPacket<TYPE, CAPACITY>::read(unsigned char* theData, int length) {
    if (length < kHeaderLength) {
        data[0] = data[1] = 0;
        return;
    }
    std::copy_n(theData, std::min(length, CAPACITY), data);
    data[1] = static_cast<unsigned char>(std::min<int>(data[1], CAPACITY - kHeaderLength));
}

template <PacketType TYPE, int CAPACITY>
pt::string TextPacket<TYPE, CAPACITY>::characters() const {
    return {reinterpret_cast<const char*>(data + kHeaderLength), data[1]};
}
