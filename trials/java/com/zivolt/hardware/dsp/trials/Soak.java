package com.zivolt.hardware.dsp.trials;

import com.zivolt.hardware.dsp.client.*;
import java.io.IOException;
import java.nio.file.*;
import java.time.Duration;
import java.util.concurrent.Callable;
import java.util.stream.IntStream;
import picocli.CommandLine;
import picocli.CommandLine.*;

/** Uses simulated cards with calls as an application does, for as long as one likes. */
@Command(name = "Soak", mixinStandardHelpOptions = true, description = {
    "Uses two simulated cards with verifiable audio and calls as an application does, and checks",
    "every byte of every line, that nothing is lost, and that the process does not grow."},
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {"0:nothing found", "1:something found", "2:wrong usage"})
public final class Soak implements Callable<Integer> {
    // A buffer of a four-channel card takes 450 ms, one of an eight-channel card 225 ms.
    private static final long TRANSFERS_PER_DAY = 576_000;
    private static final long TRANSFERS_PER_COMMAND = 400;
    private static final int SAMPLES = 20;
    // What the heap, the VM and a short backlog may still take after the first fifth.
    private static final long MOST_GROWTH_KB = 24 * 1024;

    @Option(names = "--transfers", paramLabel = "N",
            description = "How many to take, ${DEFAULT-VALUE} if not given, at least 20.")
    private long transfers = 100_000;

    @Option(names = "--days", paramLabel = "N",
            description = "The same in days of a four- and an eight-channel card.")
    private long days;

    private final AudioChecker checker = new AudioChecker();
    private long events;
    private long warm_kB;
    private long last_kB;
    private long found;

    /** Runs the soak and ends the process with its exit status. */
    public static void main(String[] args) {
        System.exit(new CommandLine(new Soak()).execute(args));
    }

    @Override
    public Integer call() throws IOException, InterruptedException {
        transfers = Math.max(days > 0 ? days * TRANSFERS_PER_DAY : transfers, SAMPLES);
        CardClient client = new CardClient();
        client.apply(settings(0));
        client.start();
        client.startRecording();
        CardEvent event;
        do {
            event = client.poll(Duration.ofSeconds(30)).orElse(null);
            if (event instanceof CardEvent.AudioRecorded audio) {
                checker.check(audio);
                atTransfer(client, checker.transfers());
            } else if (event != null) {
                ++events;
                findIf(event instanceof CardEvent.CardError, event);
            }
        } while (event != null && checker.transfers() < transfers);
        findIf(event == null, "the cards have fallen silent");
        return judge();
    }

    private void atTransfer(CardClient client, long number) throws IOException {
        if (number % TRANSFERS_PER_COMMAND == 0) {
            client.apply(settings(number / TRANSFERS_PER_COMMAND));
        }
        if (number % (transfers / SAMPLES) == 0) {
            last_kB = residentMemory();
            warm_kB = number <= transfers / 5 ? last_kB : warm_kB;
            System.out.println("soak: %d transfers, %d events, %d kB resident".formatted(
                    number, events, last_kB));
        }
    }

    /** Every line is triggered by another thing each time. */
    private static LineSettings settings(long turn) {
        Trigger[] triggers = Trigger.values();
        LineSettings.Builder table = LineSettings.builder();
        IntStream.range(0, CardClient.LINES).forEach(line -> table.line(line, new LineSetting(
                triggers[(int) ((turn + line) % triggers.length)], Beep.OFF, 2)));
        return table.build();
    }

    private static long residentMemory() throws IOException {  // told in pages of 4 kB
        return 4 * Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]);
    }

    private void findIf(boolean isSo, Object what) {
        if (isSo) {
            ++found;
            System.out.println("FOUND " + what);
        }
    }

    private int judge() {
        findIf(!checker.allWell(2), checker);
        findIf(events == 0, "no calls: were the cards started with some?");
        findIf(last_kB - warm_kB > MOST_GROWTH_KB, "the process grows");
        System.out.println(("soak: %s, %d events, %d kB resident after the first fifth, %d kB at"
                + " the end, %d found").formatted(checker, events, warm_kB, last_kB, found));
        return found == 0 ? 0 : 1;
    }
}
