package com.zivolt.hardware.dsp.trials;

import com.zivolt.hardware.dsp.client.AudioBlock;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.URL;
import java.nio.file.*;
import java.util.*;
import java.util.concurrent.Callable;
import java.util.concurrent.TimeUnit;
import java.util.regex.*;
import java.util.stream.*;
import picocli.CommandLine;
import picocli.CommandLine.*;

/**
 * Kills a recorder of busy lines again and again, or fills its disk, and judges what it has kept
 * by what the lines and the cards did: each call is in the log once, each file has its row and each
 * row its file, and in the files is what the cards sent.
 */
@Command(name = "RecorderTrial", mixinStandardHelpOptions = true, description = {
    "Records simulated busy lines, kills the recorder at random moments (SIGKILL) and starts it",
    "anew in the same folder; then looks whether every call is there, with what the cards sent."},
        exitCodeListHeading = "%nExit status:%n",
        exitCodeList = {"0:nothing found", "1:something found", "2:wrong usage"})
public final class RecorderTrial implements Callable<Integer> {
    private static final int LINES = 12;
    private static final double PERIOD_S = 0.45;
    private static final double SLACK_S = 1.5;  // a disk may stand still for as long
    private static final long MOST_GROWTH_KB = 24 * 1024;
    // Of a day, for the cards' memory of its calls is in the same process.
    private static final int LONGER = 10;
    private static final int FILLING_BYTES = 1 << 20;

    @Option(names = "--runs", description = "How many times it is killed; ${DEFAULT-VALUE}. With 0"
            + " it records once, for the whole time, and its memory is watched.")
    private int runs = 5;

    @Option(names = "--seconds", description = "How long a run may take; ${DEFAULT-VALUE}.")
    private int seconds = 10;

    @Option(names = "--speed", description = "How much faster than real time the lines are;"
            + " ${DEFAULT-VALUE}.")
    private int speed = 10;

    @Option(names = "--seed", description = "What the runs follow from; chosen if not given.")
    private long seed = new Random().nextInt(1_000_000);

    @Option(names = "--fill", description = "Fill the disk of the folder now and then; only where"
            + " it is small.")
    private boolean fill;

    @Option(names = "--build", required = true, description = "Where bin, lib and firmware are.")
    private Path build;

    @Option(names = "--folder", required = true, description = "An empty folder to record into.")
    private Path folder;

    private final List<Call> calls = new ArrayList<>();
    private final Map<String, List<Map<String, String>>> rows = new HashMap<>();
    private double[] ended;
    private double[] ending;
    private Path own;
    private long found;
    private long transfers;

    /** A call of the scenario; {@code picked} is null when nobody answers. */
    private record Call(int run, int line, String caller, double told, Double picked, double end) {
    }

    /** Runs the trial and ends the process with its exit status. */
    public static void main(String[] args) {
        System.exit(new CommandLine(new RecorderTrial()).execute(args));
    }

    @Override
    public Integer call() throws IOException, InterruptedException {
        build = build.toAbsolutePath();
        folder = folder.toAbsolutePath();
        own = Files.createTempDirectory("recorder-trial");
        ended = new double[runs + 1];
        ending = new double[runs + 1];
        Random random = new Random(seed);
        System.out.printf("recorder trial: seed %d, %d runs of up to %d s%n", seed, runs, seconds);
        for (int run = 0; run <= runs; ++run) {
            ended[run] = record(run, random, run < runs);
        }
        readLog();
        calls.forEach(this::judge);
        rows.forEach((caller, known) -> findIf(calls.stream().noneMatch(call ->
                call.caller().equals(caller)), "a row of a call that never was: " + known));
        int checked = calls("check").waitFor();
        findIf(checked != 0, "dspcard-calls check ends with status " + checked);
        System.out.printf("recorder trial: seed %d, %d calls, %d rows, %d transfers, %d found%n",
                seed, calls.size(), rows.values().stream().mapToInt(List::size).sum(), transfers,
                found);
        if (found > 0) {
            System.out.println("recorder trial: the last run's lines and words are in " + own);
            return 1;
        }
        for (String name : List.of("said", "scenario.toml", "")) {
            Files.delete(own.resolve(name));
        }
        return 0;
    }

    /** The time of the lines at which the recorder was gone. */
    private double record(int run, Random random, boolean kill)
            throws IOException, InterruptedException {
        Path said = own.resolve("said");
        Process cards = new ProcessBuilder(build + "/bin/cardsim", "--cards", "4,8",
                "--virtual-time", "--speed", "" + speed, "--scenario", "" + scenario(run, random),
                "--", "java", "-Xms64m", "-Xmx64m", "-XX:+AlwaysPreTouch", "-jar", build + "/lib/dspcard-recorder.jar", "--folder",
                "" + folder, "--reserve", "1M", "--status", "127.0.0.1:0").directory(build.resolve("firmware").toFile())
                .redirectErrorStream(true).redirectOutput(said.toFile()).start();
        while (cards.isAlive() && !Files.readString(said).contains("card 1 runs")) {
            Thread.sleep(20);
        }
        long left_ms = runs == 0 ? seconds * 1000L : 1000 + random.nextInt(seconds * 1000 - 999);
        while (fill && left_ms > 1500) {
            long until = 500 + random.nextInt((int) left_ms - 1000);
            Thread.sleep(until / 2);
            fillDisk();
            if (random.nextBoolean()) {
                Thread.sleep(until / 2);
                Files.delete(filling());
            }  // else it is full to the end, or to the next filling
            left_ms -= until;
        }
        watch(cards, Files.readString(said), left_ms);
        long asked = System.nanoTime();
        for (ProcessHandle recorder : cards.children().toList()) {
            boolean sent = kill ? recorder.destroyForcibly() : recorder.destroy();
            findIf(!sent, "the recorder had ended before");
        }
        findIf(!cards.waitFor(60, TimeUnit.SECONDS), "the recorder does not end");
        String text = Files.readString(said);
        findIf(cards.exitValue() != (kill ? 137 : 0), "the recorder ended with status "
                + cards.exitValue() + ":\n" + text);
        Files.deleteIfExists(filling());
        Matcher time = Pattern.compile("port accesses in ([0-9.]+) s").matcher(text);
        findIf(!time.find(), "no report of the cards:\n" + text);
        ending[run] = (System.nanoTime() - asked) / 1e9;
        return Double.parseDouble(time.group(1));
    }

    /** Asks for the status every second, as its page does, and for the memory that it takes. */
    private void watch(Process cards, String said, long left_ms)
            throws IOException, InterruptedException {
        Matcher address = Pattern.compile("http://[0-9.:]+/").matcher(said);
        findIf(!address.find(), "no status is shown");
        long warm_kB = 0;
        long last_kB = 0;
        for (long left = left_ms; left > 1000; left -= 1000) {
            Thread.sleep(1000);
            for (String what : List.of("state", "metrics", "calls", "day")) {
                try (InputStream in = new URL(address.group() + what).openStream()) {
                    findIf(in.readAllBytes().length < 10, "no " + what);
                }
            }
            last_kB = residentMemory(cards.children().findFirst().orElseThrow().pid());
            warm_kB = left > left_ms * 4 / 5 ? last_kB : warm_kB;
        }
        Thread.sleep(left_ms % 1000);
        if (runs == 0) {
            System.out.printf("recorder trial: %d kB resident after the first fifth, %d kB at the"
                    + " end%n", warm_kB, last_kB);
            findIf(last_kB - warm_kB > MOST_GROWTH_KB, "the process grows");
        }
    }

    private static long residentMemory(long process) throws IOException {  // in pages of 4 kB
        return 4 * Long.parseLong(Files.readString(Path.of("/proc/" + process + "/statm"))
                .split(" ")[1]);
    }

    private Path scenario(int run, Random random) throws IOException {
        StringBuilder events = new StringBuilder("event = [\n");
        for (int line = 0; line < LINES; ++line) {
            double at = 8 + random.nextInt(40) / 10.0;
            for (int number = 0; at < (seconds + 3) * speed; ++number) {
                String caller = "run %d line %d call %d".formatted(run, line, number);
                boolean answered = random.nextInt(5) > 0;
                double ring = 1 + random.nextInt(30) / 10.0;
                double talk = (2 + random.nextInt(200) / 10.0) * (runs == 0 ? LONGER : 1);
                events.append((answered ? "{ at = %.1f, line = %d, do = \"call\", caller = \"%s\","
                        + " ring = %.1f, talk = %.1f },\n" : "{ at = %.1f, line = %d, do = \"caller\","
                        + " caller = \"%s\" },\n").formatted(at, line, caller, ring, talk));
                double told = answered ? at + 0.5 : at;
                calls.add(new Call(run, line, caller, told, answered ? at + ring : null,
                        answered ? at + ring + talk : told));
                at += answered ? ring + talk + 1.5 + random.nextInt(40) / 10.0 : 65 * (runs == 0 ? LONGER : 1);
            }
        }
        return Files.writeString(own.resolve("scenario.toml"), events.append("]\n"));
    }

    private Path filling() {
        return folder.resolveSibling("filling");
    }

    private void fillDisk() {
        try (OutputStream out = Files.newOutputStream(filling(), StandardOpenOption.CREATE,
                StandardOpenOption.APPEND)) {
            while (true) {
                out.write(new byte[FILLING_BYTES]);
            }
        } catch (IOException full) {
            // as it should be
        }
    }

    private Process calls(String... arguments) throws IOException {
        List<String> command = new ArrayList<>(List.of("java", "-cp",
                build + "/lib/dspcard-recorder.jar",
                "com.zivolt.hardware.dsp.recorder.CallsProgram", "--folder", "" + folder));
        command.addAll(List.of(arguments));
        return new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT)
                .redirectOutput(arguments[0].equals("check") ? ProcessBuilder.Redirect.INHERIT
                        : ProcessBuilder.Redirect.PIPE).start();
    }

    private void readLog() throws IOException, InterruptedException {
        Process listing = calls("--format", "csv", "--limit", "0");
        List<String> lines = new String(listing.getInputStream().readAllBytes()).lines().toList();
        String[] names = lines.get(0).split(",");
        for (String line : lines.subList(1, lines.size())) {
            String[] values = line.split(",", -1);
            Map<String, String> row = IntStream.range(0, names.length).boxed()
                    .collect(Collectors.toMap(i -> names[i], i -> values[i]));
            rows.computeIfAbsent(row.get("caller"), caller -> new ArrayList<>()).add(row);
        }
    }

    /** What must be in the log of the call, by how far it had come when the recorder ended. */
    private void judge(Call call) {
        List<Map<String, String>> known = rows.getOrDefault(call.caller(), List.of());
        double now = ended[call.run()];
        double latest = now - (ending[call.run()] + SLACK_S) * speed;  // what it had time for
        if (known.size() != 1) {
            findIf(known.size() > 1 || call.told() < latest, "%d rows of %s at %.1f: %s"
                    .formatted(known.size(), call, now, known));
            return;
        }
        Map<String, String> row = known.get(0);
        Set<String> may = new TreeSet<>();
        if (call.picked() == null || call.picked() > latest) {
            may.add("missed");
        }
        if (call.picked() != null && call.picked() <= now) {
            may.addAll(call.end() > latest ? Set.of("process-end", "complete")
                    : Set.of("complete"));
            may.addAll(fill ? Set.of("disk-full") : Set.of());
        }
        findIf(!may.contains(row.get("outcome")), "%s at %.1f is not %s: %s"
                .formatted(call, now, may, row));
        findIf(Integer.parseInt(row.get("line")) != call.line(), call + " on a wrong line: " + row);
        if (call.picked() != null && call.picked() < latest) {
            judgeAudio(call, row, Math.min(call.end(), latest) - call.picked());
        }
    }

    private void judgeAudio(Call call, Map<String, String> row, double atLeast_s) {
        try {
            byte[] audio = row.get("file").isEmpty() ? new byte[0]
                    : Files.readAllBytes(folder.resolve(row.get("file")));
            int card = call.line() < 4 ? 0 : 1;
            int blockLength = card == 0 ? 600 : 300;
            double period = card == 0 ? PERIOD_S : PERIOD_S / 2;
            int gaps = 0;
            int last = -1;
            for (int at = 0; at < audio.length; at += blockLength) {
                AudioBlock block = AudioBlock.of(Arrays.copyOfRange(audio, at, at + blockLength));
                int counter = AudioChecker.counterOf(block, card, call.line() - 4 * card);
                findIf(counter <= last, "%s: block at %d of %s is not what the card sent"
                        .formatted(call, at, row));
                gaps += last >= 0 ? counter - last - 1 : 0;
                last = counter;
                ++transfers;
            }
            long lost = Long.parseLong(row.get("unwritten")) / blockLength;
            boolean counted = !row.get("outcome").equals("process-end");
            findIf(counted && gaps > lost + Long.parseLong(row.get("missed")), "%s: %d transfers are missing: %s"
                    .formatted(call, gaps, row));
            findIf((counted || !fill)
                    && audio.length / blockLength + lost < atLeast_s / period - 4,
                    "%s: less than %.1f s: %s".formatted(call, atLeast_s, row));
        } catch (IOException unreadable) {
            findIf(true, call + ": " + unreadable);
        }
    }

    private void findIf(boolean isSo, String what) {
        if (isSo) {
            ++found;
            System.out.println("FOUND " + what);
        }
    }
}
