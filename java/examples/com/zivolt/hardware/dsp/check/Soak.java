package com.zivolt.hardware.dsp.check;

import com.zivolt.hardware.dsp.client.Beep;
import com.zivolt.hardware.dsp.client.CardClient;
import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.LineSetting;
import com.zivolt.hardware.dsp.client.LineSettings;
import com.zivolt.hardware.dsp.client.Trigger;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;

/**
 * Uses a four- and an eight-channel card as an application does, for so many hours of the cards'
 * time, and checks that nothing is lost and that the process does not grow. Usage:
 * {@code Soak [HOURS]}, a day if not given. Exit status: 0 nothing found, 1 something, 2 wrong
 * usage.
 */
public final class Soak {
    private static final Duration LONGEST_SILENCE = Duration.ofSeconds(30);
    // Two transfers of the eight-channel card for each one of the four-channel card.
    private static final long TRANSFERS_PER_HOUR = 24_000;
    private static final long TRANSFERS_PER_COMMAND = 400;
    private static final int SAMPLES = 20;
    // What the heap, the VM and a short backlog may still take after the first fifth.
    private static final long MOST_GROWTH_KB = 24 * 1024;

    private final AudioChecker checker = new AudioChecker();
    private final List<Long> resident_kB = new ArrayList<>();
    private long events;
    private long errors;

    private Soak() {
    }

    /**
     * Runs the soak and ends the process with its exit status.
     *
     * @param args number of hours
     * @throws InterruptedException never, as nobody interrupts
     * @throws IOException when the process cannot read its own memory use
     */
    public static void main(String[] args) throws InterruptedException, IOException {
        try {
            long hours = args.length > 0 ? Long.parseLong(args[0]) : 24;
            System.exit(new Soak().run(hours) ? 0 : 1);
        } catch (NumberFormatException wrong) {
            System.err.println("usage: Soak [HOURS]");
            System.exit(2);
        }
    }

    private boolean run(long hours) throws InterruptedException, IOException {
        long transfers = hours * TRANSFERS_PER_HOUR;
        CardClient client = new CardClient();
        client.apply(settings(0));
        client.start();
        client.startRecording();
        boolean silent = false;
        while (checker.transfers() < transfers && !silent) {
            Optional<CardEvent> event = client.poll(LONGEST_SILENCE);
            silent = event.isEmpty();
            if (!silent && event.get() instanceof CardEvent.AudioRecorded audio) {
                checker.check(audio);
                atTransfer(client, checker.transfers(), transfers);
            } else if (!silent) {
                count(event.get());
            }
        }
        return judge(silent);
    }

    private void atTransfer(CardClient client, long number, long all) throws IOException {
        if (number % TRANSFERS_PER_COMMAND == 0) {
            client.apply(settings(number / TRANSFERS_PER_COMMAND));
        }
        if (number % (all / SAMPLES) == 0) {
            resident_kB.add(residentMemory());
            System.out.println("soak: %d transfers, %d calls and texts, %d kB resident".formatted(
                    number, events, resident_kB.get(resident_kB.size() - 1)));
        }
    }

    private void count(CardEvent event) {
        if (event instanceof CardEvent.CardError error) {
            ++errors;
            System.out.println("FOUND " + error);
        } else {
            ++events;
        }
    }

    /** Every line is triggered by another thing each time. */
    private static LineSettings settings(long turn) {
        Trigger[] triggers = Trigger.values();
        LineSettings.Builder table = LineSettings.builder();
        for (int line = 0; line < CardClient.LINES; ++line) {
            Trigger trigger = triggers[(int) ((turn + line) % triggers.length)];
            table.line(line, new LineSetting(trigger, Beep.OFF, 2));
        }
        return table.build();
    }

    private static long residentMemory() throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                return Long.parseLong(line.replaceAll("\\D", ""));
            }
        }
        throw new IOException("the kernel does not tell the memory use");
    }

    private boolean judge(boolean silent) {
        long warm = resident_kB.isEmpty() ? 0 : resident_kB.get(resident_kB.size() / 5);
        long last = resident_kB.isEmpty() ? 0 : resident_kB.get(resident_kB.size() - 1);
        boolean flat = last - warm <= MOST_GROWTH_KB;
        if (silent) {
            System.out.println("FOUND the cards have fallen silent");
        }
        if (!flat) {
            System.out.println("FOUND the process grows");
        }
        boolean well = checker.allWell() && errors == 0 && flat && !silent && events > 0;
        System.out.println(("soak: %s; %d calls and texts, %d errors, %d kB resident after the "
                + "first fifth, %d kB at the end, %s").formatted(checker, events, errors, warm,
                last, well ? "0 found" : "something found"));
        return well;
    }
}
