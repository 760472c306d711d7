// Keeps what the driver prints from the test's own output, for a test to look at. What nobody took
// is shown when the test has failed: the failure itself is told in it.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <string>

class Console {
  public:
    Console() { start(); }
    ~Console() {
        stop();
        if (testing::Test::HasFailure()) {
            std::cout << shown << out << err;
        }
    }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Takes what was printed since the last time into out and err.
    void take() {
        stop();
        shown += out + err;
        start();
    }

    std::string out, err;

  private:
    static void start() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    void stop() {
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
    }

    std::string shown;
};
