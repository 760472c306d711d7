package com.zivolt.hardware.dsp.check;

import com.zivolt.hardware.dsp.client.BadFrameException;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import java.time.Duration;
import java.util.Optional;

/**
 * Takes transfers of simulated cards with verifiable audio and checks every byte of every line.
 * Usage: {@code AudioCheck [TRANSFERS [CARDS]]}, 100000 transfers of 2 cards if not given. Exit
 * status: 0 all in its place, 1 not, 2 wrong usage.
 */
public final class AudioCheck {
    private static final Duration LONGEST_SILENCE = Duration.ofSeconds(30);

    private AudioCheck() {
    }

    /**
     * Runs the check and ends the process with its exit status.
     *
     * @param args number of transfers, number of cards
     * @throws InterruptedException never, as nobody interrupts
     */
    public static void main(String[] args) throws InterruptedException {
        try {
            long transfers = args.length > 0 ? Long.parseLong(args[0]) : 100_000;
            int cards = args.length > 1 ? Integer.parseInt(args[1]) : 2;
            System.exit(check(transfers, cards) ? 0 : 1);
        } catch (NumberFormatException wrong) {
            System.err.println("usage: AudioCheck [TRANSFERS [CARDS]]");
            System.exit(2);
        }
    }

    private static boolean check(long transfers, int cards) throws InterruptedException {
        AudioChecker checker = new AudioChecker();
        long errors = 0;
        long start = System.nanoTime();
        CardClient client = new CardClient();
        client.start();
        while (checker.transfers() < transfers) {
            try {
                Optional<CardEvent> event = client.poll(LONGEST_SILENCE);
                if (event.isEmpty()) {
                    System.out.println("AudioCheck: the cards have fallen silent");
                    break;
                }
                if (event.get() instanceof CardEvent.AudioRecorded audio) {
                    checker.check(audio);
                } else if (event.get() instanceof CardEvent.CardError error) {
                    ++errors;
                    System.out.println("AudioCheck: " + error);
                }
            } catch (BadFrameException nonsense) {
                ++errors;
                System.out.println("AudioCheck: " + nonsense.getMessage());
            }
        }
        System.out.println("AudioCheck: %s, %d errors, %.1f s".formatted(checker, errors,
                (System.nanoTime() - start) / 1e9));
        return checker.transfers() == transfers && checker.cards() == cards && checker.allWell()
                && errors == 0;
    }
}
