package com.zivolt.hardware.dsp.client;

import java.util.List;
import java.util.Objects;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;
import java.util.function.BiConsumer;

/**
 * The listeners, and the thread that takes the events for them: there is one as long as there are
 * listeners and the cards have been started. May be used by any thread.
 */
final class EventDelivery {
    /** The driver itself looks at the cards ten times a second. */
    private static final long POLL_INTERVAL_NS = 20_000_000;

    private final EventReader reader;
    private final List<Listening> listeners = new CopyOnWriteArrayList<>();
    private volatile BiConsumer<CardListener, Throwable> failureHandler = EventDelivery::print;
    private boolean started;
    private Thread thread;

    EventDelivery(EventReader reader) {
        this.reader = reader;
    }

    void setFailureHandler(BiConsumer<CardListener, Throwable> handler) {
        failureHandler = Objects.requireNonNull(handler, "handler");
    }

    synchronized Registration add(CardListener listener) {
        Listening listening = new Listening(Objects.requireNonNull(listener, "listener"));
        listeners.add(listening);
        deliverFromNowOn();
        return listening;
    }

    synchronized void start() {
        started = true;
        deliverFromNowOn();
    }

    private void deliverFromNowOn() {
        if (started && thread == null && !listeners.isEmpty()) {
            thread = new Thread(this::deliverAll, "dspcard-events");
            thread.setDaemon(false);  // whoever starts the thread may itself be a daemon
            thread.start();
        }
    }

    void requireNoListeners() {
        if (!listeners.isEmpty()) {
            throw new IllegalStateException("The events go to the listeners: close their"
                    + " registrations before polling");
        }
    }

    private void deliverAll() {
        while (goesOn()) {
            try {
                CardEvent event = reader.next();
                if (event == null) {
                    pause();
                } else if (!deliver(event)) {
                    reader.giveBack(event);
                }
            } catch (RuntimeException | Error failure) {
                tell(null, failure);
                pause();
            }
        }
    }

    private synchronized boolean goesOn() {
        if (listeners.isEmpty()) {
            thread = null;
            notifyAll();
        }
        return thread != null;
    }

    /** Ends early when a listener leaves. */
    private static void pause() {
        LockSupport.parkNanos(POLL_INTERVAL_NS);
        Thread.interrupted();  // a listener's doing, which means nothing to the others
    }

    /** Whether anybody was there to hear it. */
    private boolean deliver(CardEvent event) {
        boolean heard = false;
        for (Listening listening : listeners) {
            heard |= listening.hear(event);
        }
        return heard;
    }

    /** The others and the later events do not suffer from a listener, nor from the handler. */
    private void tell(CardListener listener, Throwable failure) {
        try {
            failureHandler.accept(listener, failure);
        } catch (RuntimeException | Error further) {
            print(listener, failure);
            print(listener, further);
        }
    }

    private static void print(CardListener listener, Throwable failure) {
        System.err.println(listener == null ? "CardClient: an event could not be taken: " + failure
                : "CardClient: the listener " + listener + " failed: " + failure);
    }

    private final class Listening implements Registration {
        private final CardListener listener;
        private final ReentrantLock running = new ReentrantLock();
        private boolean closed;

        Listening(CardListener listener) {
            this.listener = listener;
        }

        boolean hear(CardEvent event) {
            running.lock();
            try {
                if (closed) {
                    return false;
                }
                listener.onEvent(event);
            } catch (RuntimeException | Error failure) {
                tell(listener, failure);
            } finally {
                running.unlock();
            }
            return true;
        }

        @Override
        public void close() {
            leave(this);
            running.lock();  // at once for the delivering thread, which has it
            closed = true;
            running.unlock();
            awaitEndOfThread();
        }
    }

    private synchronized void leave(Listening listening) {
        listeners.remove(listening);
        LockSupport.unpark(thread);
    }

    /** Of the thread that ends with the last listener: nobody must poll beside it. */
    private synchronized void awaitEndOfThread() {
        boolean interrupted = false;
        while (thread != null && thread != Thread.currentThread() && listeners.isEmpty()) {
            try {
                wait();
            } catch (InterruptedException whileWaiting) {
                interrupted = true;
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }
}
