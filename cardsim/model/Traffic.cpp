#include "model/Traffic.h"

#include <memory>
#include <string>

#include "model/Random.h"

namespace cardsim {

namespace {

constexpr std::uint64_t kTrafficStream = 0x7000;
constexpr double kIncoming = 0.6;
constexpr double kUnanswered = 0.1;
constexpr double kDigitsInPause = 0.1;
constexpr std::uint64_t kCallerAfter_ms = 500;
constexpr std::uint64_t kDigitEvery_ms = 150;
// Of numbers that no telephone has.
const std::string kNumberStart = "01914980";

// Whoever telephones on one line: each step of a call plans the next. The plan owns it.
class Subscriber : public std::enable_shared_from_this<Subscriber> {
  public:
    Subscriber(Cards& allCards, int number, std::uint64_t seed)
        : cards(allCards),
          line(allCards.line(number)),
          random(seed, kTrafficStream + static_cast<std::uint64_t>(number)) {}

    // The first calls are short and come soon, but not before a host has booted the cards; they
    // come on one line and go out on the next. So a run of 20 seconds shows whole calls with
    // callers and digits.
    void begin(bool comes) {
        talk_ms = random.between(3'000, 8'000);
        isPatient = true;
        after(random.between(3'000, 6'000), comes ? &Subscriber::ring : &Subscriber::pickUp);
    }

  private:
    void planCall(std::uint64_t idle_ms) {
        after(idle_ms, random.chance(kIncoming) ? &Subscriber::ring : &Subscriber::pickUp);
    }

    void ring() {
        line.setRinging(true);
        after(kCallerAfter_ms, &Subscriber::showCaller);
    }

    void showCaller() {
        line.callFrom(anyNumber());
        const bool isAnswered = isPatient || !random.chance(kUnanswered);
        after(random.between(500, 3'500), isAnswered ? &Subscriber::answer : &Subscriber::giveUp);
    }

    void giveUp() {
        line.setRinging(false);
        rest();
    }

    void answer() {
        line.setRinging(false);
        line.setOffHook(true);
        beginTalk();
    }

    void pickUp() {
        line.setOffHook(true);
        digits = anyNumber();
        after(random.between(500, 1'500), &Subscriber::dialNext);
    }

    void dialNext() {
        line.dial(digits.substr(0, 1));
        digits.erase(0, 1);
        if (digits.empty()) {
            beginTalk();
        } else {
            after(kDigitEvery_ms, &Subscriber::dialNext);
        }
    }

    void beginTalk() {
        hangUpAt = time + 1000 * talk_ms;
        talk_ms = random.between(3'000, 30'000);
        isPatient = false;
        pause();
    }

    void speak() {
        line.setSpeaking(true);
        line.setLevel(static_cast<std::uint16_t>(random.between(0x2000, 0x5000)));
        nextInTalk(random.between(800, 4'000), &Subscriber::pause);
    }

    void pause() {
        line.setSpeaking(false);
        if (random.chance(kDigitsInPause)) {
            line.dial(std::to_string(random.between(1, 999)));
        }
        nextInTalk(random.between(300, 1'500), &Subscriber::speak);
    }

    void hangUp() {
        line.setSpeaking(false);
        line.setOffHook(false);
        rest();
    }

    void rest() { planCall(random.between(2'000, 20'000)); }

    using Step = void (Subscriber::*)();

    void nextInTalk(std::uint64_t span_ms, Step step) {
        const std::uint64_t left_ms = (hangUpAt - time) / 1000;
        if (span_ms < left_ms) {
            after(span_ms, step);
        } else {
            after(left_ms, &Subscriber::hangUp);
        }
    }

    void after(std::uint64_t span_ms, Step step) {
        time += 1000 * span_ms;
        cards.at(time, [self = shared_from_this(), step] { (self.get()->*step)(); });
    }

    std::string anyNumber() { return kNumberStart + std::to_string(random.between(100, 999)); }

    Cards& cards;
    Line& line;
    Random random;
    std::uint64_t time = 0;  // of the step that is planned or happens
    bool isPatient = false;  // rings until it is answered
    std::uint64_t talk_ms = 0;
    std::uint64_t hangUpAt = 0;
    std::string digits;
};

}  // namespace

void planTraffic(Cards& cards, std::uint64_t seed) {
    for (int number = 0; number < cards.lines(); ++number) {
        std::make_shared<Subscriber>(cards, number, seed)->begin(number % 2 == 0);
    }
}

}  // namespace cardsim
