package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.CardEvent;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.Condition;
import java.util.concurrent.locks.ReentrantLock;

/**
 * What the cards report, on its way to the thread that records it. Holds minutes of audio, for a
 * disk may stand still that long; when it is full the audio that comes is dropped and counted, so
 * that neither the driver nor the heap fills up. Calls, callers and states are never dropped before
 * audio. For any threads.
 */
final class EventQueue {
    /** About 10 MB, ten minutes of two cards. */
    static final int MOST_AUDIO = 4_000;

    private static final int MOST_OTHERS = 50_000;
    private static final long PATIENCE_MS = 1_000;

    private final ReentrantLock lock = new ReentrantLock();
    private final Condition arrived = lock.newCondition();
    private final Condition taken = lock.newCondition();
    private Deque<CardEvent> events = new ArrayDeque<>();
    private int audio;
    private boolean dropping;
    private final long[] lostBytes = new long[2];
    private long dropped;

    /** Waits a second at most for room. */
    void put(CardEvent event) {
        lock.lock();
        try {
            if (event instanceof CardEvent.AudioRecorded heard) {
                if (isFull() && !dropping) {
                    awaitRoom();
                }
                if (isFull()) {
                    dropping = true;
                    ++dropped;
                    lostBytes[heard.firstLine() == 0 ? 0 : 1] += heard.blocks().get(0).length();
                    return;
                }
                dropping = false;
                ++audio;
            } else if (events.size() - audio >= MOST_OTHERS) {
                ++dropped;
                return;
            }
            events.add(event);
            arrived.signal();
        } finally {
            lock.unlock();
        }
    }

    /** All that waits, in order; waited for, at most so long. Empty when nothing came. */
    List<CardEvent> take(long wait_ms) throws InterruptedException {
        lock.lock();
        try {
            long left = TimeUnit.MILLISECONDS.toNanos(wait_ms);
            while (events.isEmpty() && left > 0) {
                left = arrived.awaitNanos(left);
            }
            List<CardEvent> all = new ArrayList<>(events);
            events = new ArrayDeque<>();
            audio = 0;
            taken.signalAll();
            return all;
        } finally {
            lock.unlock();
        }
    }

    /** Bytes of each line of the card that were dropped since the last time. */
    long takeLostBytes(int card) {
        lock.lock();
        try {
            long bytes = lostBytes[card];
            lostBytes[card] = 0;
            return bytes;
        } finally {
            lock.unlock();
        }
    }

    int length() {
        lock.lock();
        try {
            return events.size();
        } finally {
            lock.unlock();
        }
    }

    /** Events that were dropped. */
    long dropped() {
        lock.lock();
        try {
            return dropped;
        } finally {
            lock.unlock();
        }
    }

    private boolean isFull() {
        return audio >= MOST_AUDIO;
    }

    private void awaitRoom() {
        long left = TimeUnit.MILLISECONDS.toNanos(PATIENCE_MS);
        try {
            while (isFull() && left > 0) {
                left = taken.awaitNanos(left);
            }
        } catch (InterruptedException hurried) {
            Thread.currentThread().interrupt();
        }
    }
}
