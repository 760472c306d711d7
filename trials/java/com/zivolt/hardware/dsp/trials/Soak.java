package com.zivolt.hardware.dsp.trials;

import com.zivolt.hardware.dsp.client.*;
import java.io.*;
import java.nio.file.*;
import java.time.Instant;
import java.util.*;
import java.util.concurrent.*;
import java.util.stream.IntStream;
import picocli.CommandLine;
import picocli.CommandLine.*;

/** Uses simulated cards with calls as an application does, for as long as one likes. */
@Command(name = "Soak", mixinStandardHelpOptions = true, description = {
    "Listens to two simulated cards with verifiable audio and calls, and checks",
    "every byte of every line, that nothing is lost, and that the process does not grow."},
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {"0:nothing found", "1:something found", "2:wrong usage"})
public final class Soak implements Callable<Integer> {
    // A buffer of a four-channel card takes 450 ms, one of an eight-channel card 225 ms.
    private static final long TRANSFERS_PER_DAY = 576_000;
    private static final long TRANSFERS_PER_COMMAND = 400;
    private static final int SAMPLES = 20;
    // What the heap and the VM may still take after the first fifth, a backlog besides: when this
    // machine keeps the listener waiting, that comes once and as a whole; a leak does not.
    private static final long MOST_GROWTH_KB = 24 * 1024;

    @Option(names = "--transfers", paramLabel = "N",
            description = "How many to take, ${DEFAULT-VALUE} if not given, at least 20.")
    private long transfers = 100_000;

    @Option(names = "--days", paramLabel = "N",
            description = "The same in days of a four- and an eight-channel card.")
    private long days;

    private static final long SILENCE_S = 30;

    private final AudioChecker checker = new AudioChecker();
    private final CountDownLatch finished = new CountDownLatch(1);
    private final Set<Integer> talking = new HashSet<>();
    private Instant latest = Instant.MIN;
    private volatile long taken;
    private long events;
    private long runningCards;
    private long warm_kB;
    private long last_kB;
    private long backlog_kB;
    private long found;

    /** Runs the soak and ends the process with its exit status. */
    public static void main(String[] args) {
        System.exit(new CommandLine(new Soak()).execute(args));
    }

    @Override
    public Integer call() throws InterruptedException {
        transfers = Math.max(days > 0 ? days * TRANSFERS_PER_DAY : transfers, SAMPLES);
        CardClient client = new CardClient();
        client.onListenerFailure((listener, failure) -> findIf(true, failure));
        client.apply(settings(0));
        Registration registration = client.listen(event -> hear(client, event));
        client.start();
        client.startRecording();
        long before;
        do {
            before = taken;
        } while (!finished.await(SILENCE_S, TimeUnit.SECONDS) && taken != before);
        findIf(finished.getCount() != 0, "the cards have fallen silent");
        registration.close();
        return judge();
    }

    private void hear(CardClient client, CardEvent event) {
        if (taken == transfers) {
            return;
        }
        findIf(event.time().isBefore(latest), event);
        latest = event.time();
        if (event instanceof CardEvent.AudioRecorded audio) {
            checker.check(audio);
            taken = checker.transfers();
            atTransfer(client, taken);
        } else if (event instanceof CardEvent.CardStateChanged change) {
            findIf(change.state() != CardState.RUNNING, change);
            ++runningCards;
        } else {
            ++events;
            findIf(event instanceof CardEvent.CardError
                    || event instanceof CardEvent.CallStarted call && !talking.add(call.line())
                    || event instanceof CardEvent.CallEnded end && !talking.remove(end.line()),
                    event);
        }
        if (taken == transfers) {
            finished.countDown();
        }
    }

    private void atTransfer(CardClient client, long number) {
        if (number % TRANSFERS_PER_COMMAND == 0) {
            client.apply(settings(number / TRANSFERS_PER_COMMAND));
        }
        if (number % (transfers / SAMPLES) == 0) {
            long now_kB = residentMemory();
            if (number <= transfers / 5) {
                warm_kB = now_kB;
            } else {
                backlog_kB = Math.max(backlog_kB, now_kB - last_kB);
            }
            last_kB = now_kB;
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

    private static long residentMemory() {  // told in pages of 4 kB
        try {
            return 4 * Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]);
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }

    private void findIf(boolean isSo, Object what) {
        if (isSo) {
            ++found;
            System.out.println("FOUND " + what);
        }
    }

    private int judge() {
        findIf(!checker.allWell(2), checker);
        findIf(runningCards != 2, "other cards than two that always run: " + runningCards);
        findIf(events == 0, "no calls: were the cards started with some?");
        findIf(last_kB - backlog_kB - warm_kB > MOST_GROWTH_KB, "the process grows");
        System.out.println(("soak: %s, %d events, %d kB resident after the first fifth, %d kB at"
                + " the end, %d found").formatted(checker, events, warm_kB, last_kB, found));
        return found == 0 ? 0 : 1;
    }
}
