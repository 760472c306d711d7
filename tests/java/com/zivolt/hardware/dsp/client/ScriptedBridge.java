package com.zivolt.hardware.dsp.client;

import com.zivolt.hardware.dsp.cppint.CPPBridge;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;

/** A bridge without a driver behind it: delivers what a test has queued, keeps what it is sent. */
final class ScriptedBridge extends CPPBridge {
    record Command(int type, List<Byte> data) {
    }

    final Deque<byte[]> frames = new ArrayDeque<>();
    final List<Command> commands = new ArrayList<>();

    @Override
    public byte[] getPacket() {
        return frames.poll();
    }

    @Override
    public void putPacket(byte packetType, int length, byte[] data) {
        List<Byte> bytes = new ArrayList<>();
        for (int i = 0; i < length; ++i) {
            bytes.add(data[i]);
        }
        commands.add(new Command(packetType, bytes));
    }
}
