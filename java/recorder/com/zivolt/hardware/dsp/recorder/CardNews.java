package com.zivolt.hardware.dsp.recorder;

import com.zivolt.hardware.dsp.client.CardEvent;
import com.zivolt.hardware.dsp.client.CardState;
import com.zivolt.hardware.dsp.client.CardStatus;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.function.Consumer;
import java.util.stream.IntStream;

/**
 * Tells what becomes of the cards, each trouble once when it begins and once when it ends, and
 * knows which cards there must be. For any thread.
 */
final class CardNews {
    private static final int CARDS = 2;

    private final Consumer<String> news;
    private final CardEvent.CardStateChanged[] trouble = new CardEvent.CardStateChanged[CARDS];
    private final List<Integer> required;
    private List<Integer> expected;
    private List<String> missing = List.of();

    /** @param expected how many lines each card must have, 0 for no card; null: whatever is found */
    CardNews(List<Integer> expected, Consumer<String> news) {
        this.required = expected == null ? List.of() : expected;
        this.expected = expected;
        this.news = news;
    }

    synchronized void handle(CardEvent.CardStateChanged changed) {
        CardEvent.CardStateChanged before = trouble[changed.card()];
        if (changed.state() == CardState.RUNNING) {
            trouble[changed.card()] = null;
            news.accept(before == null ? "card %d runs".formatted(changed.card())
                    : "card %d runs again, after %d s".formatted(changed.card(),
                            Duration.between(before.time(), changed.time()).toSeconds()));
        } else if (changed.state() != CardState.STARTING) {
            trouble[changed.card()] = before == null ? changed : before;
            news.accept("CARD %d %s: %s".formatted(changed.card(), words(changed.state()),
                    Printable.escaped(changed.reason())));
            if (changed.card() == 0 && changed.before() == CardState.STARTING
                    && changed.state() == CardState.NOT_RUNNING) {
                news.accept("settings reach all cards through card 0: without it no line of any card"
                        + " has calls");
            }
        }
    }

    /** Cards that must be there and are not, as they were found at the start; told once. */
    synchronized void found(List<CardStatus> cards) {
        if (expected == null) {
            expected = cards.stream().filter(card -> card.state() != CardState.ABSENT)
                    .map(CardStatus::lines).toList();
        }
        List<String> wrong = new ArrayList<>();
        for (int number = 0; number < expected.size(); ++number) {
            int index = number;
            int lines = cards.stream().filter(card -> card.card() == index
                    && card.state() != CardState.ABSENT).mapToInt(CardStatus::lines).sum();
            if (lines != expected.get(number)) {
                wrong.add(lines == 0 ? "card %d with %d lines is not there"
                        .formatted(number, expected.get(number))
                        : "card %d has %d lines, not %d".formatted(number, lines,
                                expected.get(number)));
            }
        }
        wrong.stream().filter(what -> !missing.contains(what))
                .forEach(what -> news.accept("EXPECTED otherwise: " + what));
        missing = wrong;
    }

    /**
     * Cards that do not run and without which there is no point in going on: card 0, through which
     * settings reach all cards, and those that were said to be expected.
     */
    List<Integer> notDelivering(List<CardStatus> cards) {
        return IntStream.range(0, CARDS)
                .filter(card -> card == 0 || card < required.size() && required.get(card) > 0)
                .filter(card -> cards.stream().noneMatch(status -> status.card() == card
                        && status.state() == CardState.RUNNING))
                .boxed().toList();
    }

    /** What is wrong with the cards now; nothing when all that must be there run. */
    synchronized List<String> problems(List<CardStatus> cards) {
        List<String> problems = new ArrayList<>(missing);
        cards.stream().filter(card -> card.state() != CardState.RUNNING)
                .map(card -> "card %d: %s".formatted(card.card(), words(card.state())))
                .forEach(problems::add);
        if (cards.isEmpty()) {
            problems.add("no card is there");
        }
        return problems;
    }

    static String words(CardState state) {
        return state.name().toLowerCase(Locale.ROOT).replace('_', ' ');
    }
}
