package com.zivolt.hardware.dsp.examples;

import com.zivolt.hardware.dsp.client.*;

/** Prints the calls of all lines, and what becomes of the cards, until it is interrupted. */
public final class PrintCalls {
    private PrintCalls() {
    }

    /**
     * Starts the cards and listens.
     *
     * @param args none
     */
    public static void main(String[] args) {
        CardClient client = new CardClient();
        client.apply(LineSettings.builder()
                .allLines(new LineSetting(Trigger.OFF_HOOK, Beep.OFF, 3))
                .line(2, new LineSetting(Trigger.VOX_2, Beep.LOW, 5))
                .build());
        client.listen(PrintCalls::print);
        client.start();
        client.startRecording();
    }

    private static void print(CardEvent event) {
        if (event instanceof CardEvent.CallStarted call) {
            System.out.println("line " + call.line() + ": call since " + call.time());
        } else if (event instanceof CardEvent.CallEnded call) {
            System.out.println("line " + call.line() + ": call ended " + call.time());
        } else if (event instanceof CardEvent.CardStateChanged change) {
            System.out.println("card " + change.card() + ": " + change.state() + ", "
                    + change.reason());
        } else if (event instanceof CardEvent.CardError error) {
            System.out.println("trouble: " + error.message());
        }
    }
}
