// The x86 port instructions with the port number in dx, as they lie in memory.
#pragma once

namespace cardsim {

struct PortInstruction {
    bool isOut;
    int bytes;   // width of the access: 1, 2 or 4
    int length;  // of the instruction
};

// False when no such instruction starts there; at most two bytes are looked at.
constexpr bool decodePortInstruction(const unsigned char* code, PortInstruction& instruction) {
    constexpr unsigned char kOperandSize = 0x66;
    const bool wordSized = code[0] == kOperandSize;
    const int wide = wordSized ? 2 : 4;
    switch (code[wordSized ? 1 : 0]) {
        case 0xEC:
            instruction = {false, 1, 1};
            break;
        case 0xED:
            instruction = {false, wide, 1};
            break;
        case 0xEE:
            instruction = {true, 1, 1};
            break;
        case 0xEF:
            instruction = {true, wide, 1};
            break;
        default:
            return false;
    }
    instruction.length += wordSized ? 1 : 0;
    return true;
}

}  // namespace cardsim
