#include "model/Card.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace cardsim {

namespace {

constexpr std::uint16_t kNotInReset = 0xFF;
constexpr std::uint64_t kStreamOfUndefinedBits = 0x5EED;

void writeText(volatile std::uint16_t* words, const std::string& text) {
    std::string bytes(1, static_cast<char>(text.size()));
    bytes += text;
    bytes.resize(bytes.size() + bytes.size() % 2, '\0');
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        words[i / 2] = static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[i]) |
                                                  static_cast<unsigned char>(bytes[i + 1]) << 8);
    }
}

struct Place {
    int start;
    int count;
};

// Where a field lies in a buffer of that layout, in words; no words when it has none. port: the
// start of the port, for fields that each port has.
Place placeOf(FaultField field, const TransferLayout& transfer, int port) {
    switch (field) {
        case FaultField::kLevel:
            return {port + layout::kLevel, 1};
        case FaultField::kOffHook:
            return {port + layout::kOffHook, 1};
        case FaultField::kTriggered:
            return {port + layout::kTriggered, 1};
        case FaultField::kRinging:
            return {port + layout::kRinging, 1};
        case FaultField::kDigits:
            return {port + transfer.digits, transfer.digitsBytes / 2};
        case FaultField::kCaller:
            return {port + transfer.caller, layout::kCallerBytes / 2};
        case FaultField::kDebug:
            return {transfer.debug, transfer.debug == 0 ? 0 : 1};
        case FaultField::kCounter:
            return {layout::kCounter, 2};
        case FaultField::kAudio:
            return {port + transfer.audio, transfer.audioWords};
        case FaultField::kAnyField:
            break;
    }
    return {0, 0};
}

}  // namespace

Card::Card(int slotNumber, const CardOptions& options, volatile std::uint16_t* memory,
           MachineReport& machineReport)
    : slot(slotNumber),
      kind(kindOf(options.channels)),
      transfer(kind.transfer),
      period_us(options.period_us == 0 ? kind.period_us : options.period_us),
      audio(options.audio),
      turnsByHand(options.turnsByHand),
      report(machineReport.cards[slotNumber]),
      timeline(machineReport.timeline),
      plannedFaults(options.faults, slotNumber, options.seed),
      undefinedBits(options.seed, kStreamOfUndefinedBits + static_cast<std::uint64_t>(slotNumber)) {
    report.channels = static_cast<std::uint32_t>(channels());
    buffers[0].words = memory;
    buffers[1].words = memory + layout::kSecondBuffer;
    lines.reserve(static_cast<std::size_t>(channels()));
    for (int port = 0; port < channels(); ++port) {
        lines.emplace_back(now);
    }
}

std::uint16_t Card::in(std::uint16_t offset, std::uint64_t accessTime) {
    advance(accessTime);
    if (strikes(FaultKind::kAbsent)) {
        return portMap::kNobody;
    }
    switch (offset) {
        case portMap::kData:
            return readData();
        case portMap::kControl:
            return readStatus();
        case portMap::kBuffer1:
            return readHandOver(buffers[1]) | noise(portMap::kUndefinedStatus);
        case portMap::kReset:
            return portMap::kNobody;
        default:
            return readLineStatus((offset - portMap::kLines) / 2);
    }
}

void Card::out(std::uint16_t offset, std::uint16_t value, std::uint64_t accessTime) {
    advance(accessTime);
    if (strikes(FaultKind::kAbsent)) {
        return;
    }
    registers[offset / 2] = value;
    if (offset == portMap::kControl) {
        control(value);
    } else if (offset == portMap::kBuffer1 && value == portMap::kRun) {
        release(buffers[1]);
    }
}

// Everything else that is written to the control register, such as the register defaults, leaves
// the DSP alone.
void Card::control(std::uint16_t value) {
    if (value == portMap::kStop && written(portMap::kReset) == portMap::kResetArmed) {
        stop();
    } else if (value == portMap::kStrobe && state == State::kBooting) {
        strobe();
    } else if (value == portMap::kRun) {
        switch (state) {
            case State::kStopped:
                startRom();
                break;
            case State::kBooting:
                endStrobe();
                break;
            case State::kRunning:
                release(buffers[0]);
                break;
        }
    }
}

void Card::stop() {
    state = State::kStopped;
    wantsByte = byteBusy = byteRefused = dead = false;
    for (Buffer& buffer : buffers) {
        buffer.handedOver = buffer.isTakenBack = false;
    }
}

void Card::startRom() {
    state = State::kBooting;
    rom.restart();
    askForByte();
}

void Card::askForByte() {
    byteRefused = byteRefused || (!wantsByte && strikes(FaultKind::kByteRefused));
    wantsByte = !byteRefused;
}

void Card::strobe() {
    if (!wantsByte) {
        rom.giveUp();
        return;
    }
    wantsByte = false;
    byteBusy = strikes(FaultKind::kByteStuck);
    if (!byteBusy) {
        rom.take(static_cast<std::uint8_t>(written(portMap::kData) & 0xFF));
    }
}

void Card::endStrobe() {
    if (rom.currentState() == BootRom::State::kDone) {
        startFirmware();
    } else if (rom.currentState() == BootRom::State::kLoading && !byteBusy) {
        askForByte();
    }
}

void Card::startFirmware() {
    state = State::kRunning;
    nextBuffer = 0;
    nextTurn = now + period_us;
    transferCounter = 0;
    samples = 0;
    for (Line& each : lines) {
        each.forgetSettings();
    }
    ++report.boots;
    recordImage();
    dead = strikes(FaultKind::kDeadAfterBoot);
}

void Card::recordImage() {
    const std::vector<BootRom::Block>& image = rom.image();
    report.imageBlocks = static_cast<std::uint32_t>(image.size());
    report.imageWords = 0;
    report.imageChecksum = 0;
    for (std::size_t i = 0; i < image.size(); ++i) {
        const BootRom::Block& block = image[i];
        const std::uint16_t checksum = checksumOf(block.words);
        const auto words = static_cast<std::uint32_t>(block.words.size());
        report.imageWords += words;
        report.imageChecksum = (report.imageChecksum + checksum) & 0xFFFF;
        if (i < CardReport::kMaxBlocks) {
            report.blocks[i] = {block.address, static_cast<std::uint16_t>(words), checksum};
        }
    }
    remember(report.imageChecksum);
}

std::uint16_t Card::readData() {
    if (state != State::kStopped) {
        return kNotInReset;
    }
    const auto echo = static_cast<std::uint16_t>(written(portMap::kData) & 0xFF);
    return strikes(FaultKind::kWrongEcho) ? echo ^ 0xFF : echo;
}

std::uint16_t Card::readStatus() {
    std::uint16_t status = kind.status | noise(portMap::kUndefinedStatus);
    if (state == State::kBooting) {
        status |= wantsByte ? portMap::kWantsByte : 0;
        status |= byteBusy ? portMap::kByteBusy : 0;
    } else if (state == State::kRunning) {
        status |= readHandOver(buffers[0]);
    }
    return status;
}

std::uint16_t Card::readHandOver(Buffer& buffer) {
    const bool seen = buffer.handedOver;
    if (seen && buffer.isTakenBack) {
        buffer.handedOver = buffer.isTakenBack = false;
    }
    return seen ? portMap::kHandedOver : std::uint16_t{0};
}

std::uint16_t Card::readLineStatus(int word) {
    const LineStatusLayout& bits = kind.lineStatus;
    unsigned status = 0;
    unsigned undefined = 0xFFFF;
    for (int i = 0; i < bits.linesOfWord; ++i) {
        const Line& each = line(word * bits.linesOfWord + i);
        const unsigned hook = each.isOffHook() ? bits.offHook : bits.onHook;
        const unsigned trigger = each.isTriggered() ? bits.triggered : 0u;
        status |= (hook | trigger) << (i * bits.bitsOfLine);
        const unsigned meant = unsigned{bits.onHook} | bits.offHook | bits.triggered;
        undefined &= ~(meant << (i * bits.bitsOfLine));
    }
    return static_cast<std::uint16_t>(status | noise(undefined));
}

// What the wires of undefined bits happen to carry.
std::uint16_t Card::noise(unsigned bits) {
    return static_cast<std::uint16_t>(undefinedBits.next() & bits);
}

void Card::advance(std::uint64_t until) {
    while (state == State::kRunning && !dead && !turnsByHand && nextTurn <= until) {
        now = nextTurn;
        nextTurn += period_us;
        takeTurn();
    }
    now = std::max(now, until);
}

void Card::turn(std::uint64_t time) {
    advance(time);
    if (state == State::kRunning && !dead) {
        takeTurn();
    }
}

void Card::takeTurn() {
    if (strikes(FaultKind::kSilent)) {
        return;
    }
    Buffer& buffer = buffers[nextBuffer];
    nextBuffer ^= 1;
    if (buffer.handedOver) {
        ++transferCounter;
        ++report.missed;
        return;
    }
    handOver(buffer);
    Buffer& other = buffers[nextBuffer];
    if (!other.handedOver && strikes(FaultKind::kBothBuffers)) {
        nextBuffer ^= 1;
        handOver(other);
    }
}

void Card::handOver(Buffer& buffer) {
    takeFromHost(buffer);
    advanceCounter();
    fill(buffer);
    buffer.handedOver = true;
    buffer.isTakenBack = strikes(FaultKind::kTakenBack);
    ++report.handOvers;
}

void Card::release(Buffer& buffer) {
    if (state == State::kRunning && buffer.handedOver) {
        buffer.handedOver = buffer.isTakenBack = false;
        ++report.served;
    }
}

void Card::takeFromHost(const Buffer& buffer) {
    if (buffer.words[transfer.command] == layout::kApplySettings) {
        applySettings(buffer);
        buffer.words[transfer.command] = 0;
    } else {
        play(buffer);
    }
}

void Card::applySettings(const Buffer& buffer) {
    for (int port = 0; port < channels(); ++port) {
        const volatile std::uint16_t* const entry =
            buffer.words + transfer.command + layout::kSettings + 3 * port;
        const Line::Settings settings = {entry[0], entry[1], entry[2]};
        line(port).apply(settings);
        ++report.commands[port];
        remember(settings.beep);
        remember(settings.trigger);
        remember(settings.delay_ms);
    }
}

void Card::play(const Buffer& buffer) {
    char bytes[2 * kMaxAudioWords];
    for (int i = 0; i < transfer.audioWords; ++i) {
        const std::uint16_t word = buffer.words[transfer.playbackAudio + i];
        bytes[2 * i] = static_cast<char>(word & 0xFF);
        bytes[2 * i + 1] = static_cast<char>(word >> 8);
        remember(word);
    }
    const auto count = static_cast<std::size_t>(2 * transfer.audioWords);
    report.bytesPlayed += count;
    if (speaker) {
        speaker(bytes, count);
    }
}

void Card::advanceCounter() {
    if (strikes(FaultKind::kCounterStuck)) {
        return;
    }
    ++transferCounter;
    if (strikes(FaultKind::kCounterJump)) {
        transferCounter += static_cast<std::uint32_t>(plannedFaults.random().between(1, 1000));
    }
}

void Card::fill(const Buffer& buffer) {
    buffer.words[layout::kCounter] = static_cast<std::uint16_t>(transferCounter & 0xFFFF);
    buffer.words[layout::kCounter + 1] = static_cast<std::uint16_t>(transferCounter >> 16);
    for (int port = 0; port < channels(); ++port) {
        fillPort(buffer.words + transfer.firstPort + port * transfer.portWords, port);
    }
    const std::uint64_t calls = std::accumulate(
        lines.begin(), lines.end(), std::uint64_t{0},
        [](std::uint64_t sum, const Line& each) { return sum + each.callsSoFar(); });
    report.calls += calls - std::exchange(reportedCalls, calls);
    samples += static_cast<std::uint64_t>(2 * transfer.audioWords);
    if (transfer.debug != 0) {
        buffer.words[transfer.debug] = 0;
    }
    remember(transferCounter);
    if (const Fault* const nonsense = plannedFaults.strikes(FaultKind::kNonsense)) {
        scribble(buffer, nonsense->field);
    }
}

void Card::fillPort(volatile std::uint16_t* port, int number) {
    Line& telephone = line(number);
    const std::uint16_t voice = telephone.isVoiceActive() ? layout::kVoiceActive : std::uint16_t{0};
    port[layout::kLevel] = static_cast<std::uint16_t>(telephone.level() | voice);
    port[layout::kOffHook] = telephone.isOffHook() ? 1 : 0;
    port[layout::kTriggered] = telephone.isTriggered() ? 1 : 0;
    port[layout::kRinging] = telephone.isRinging() ? 1 : 0;
    fillAudio(port + transfer.audio, number);
    writeText(port + transfer.digits,
              telephone.takeDigits(static_cast<std::size_t>(transfer.digitsBytes - 1)));
    writeText(port + transfer.caller, telephone.takeCaller(layout::kCallerBytes - 1));
    remember(port[layout::kLevel]);
    remember(port[transfer.digits]);
    remember(port[transfer.caller]);
}

void Card::fillAudio(volatile std::uint16_t* words, int number) {
    const auto port = static_cast<unsigned>(number);
    for (int i = 0; i < transfer.audioWords; ++i) {
        const auto position = static_cast<unsigned>(i);
        words[i] = audio == AudioSource::kPattern
                       ? patternWord(static_cast<unsigned>(slot), port, transferCounter, position)
                       : pleasantWord(port, line(number).isSpeaking(), samples + 2 * position);
    }
}

void Card::scribble(const Buffer& buffer, FaultField field) {
    Random& random = plannedFaults.random();
    if (field == FaultField::kAnyField) {
        const FaultField last = transfer.debug == 0 ? FaultField::kCaller : FaultField::kDebug;
        field = static_cast<FaultField>(random.between(0, static_cast<std::uint64_t>(last)));
    }
    const auto lastPort = static_cast<std::uint64_t>(channels() - 1);
    const auto port = static_cast<int>(random.between(0, lastPort));
    const auto [start, count] =
        placeOf(field, transfer, transfer.firstPort + port * transfer.portWords);
    report.faults += count == 0 ? 0 : 1;
    for (int i = 0; i < count; ++i) {
        buffer.words[start + i] = static_cast<std::uint16_t>(random.next() & 0xFFFF);
    }
}

void Card::remember(std::uint64_t what) {
    constexpr std::uint64_t kFnvPrime = 0x100000001B3;
    timeline = (timeline ^ what ^ static_cast<std::uint64_t>(slot) << 63) * kFnvPrime;
}

bool Card::strikes(FaultKind fault) {
    const bool struck = plannedFaults.strikes(fault) != nullptr;
    report.faults += struck ? 1 : 0;
    return struck;
}

}  // namespace cardsim
