#pragma once

// While an InterruptQuits exists, SIGINT and SIGTERM make the main thread's
// event loops return, so that commctl ends its work in order (closing the
// link and a capture file) instead of dying in the middle of a write. The
// caller then ends the process by the same signal with reraise(), so that
// its exit status stays what an interrupted commctl has always had.
class InterruptQuits
{
public:
    InterruptQuits();
    ~InterruptQuits();
    InterruptQuits(const InterruptQuits &) = delete;
    InterruptQuits &operator=(const InterruptQuits &) = delete;

    // The signal caught, or 0.
    int caught() const;
    // Ends the process by the caught signal, with its default action; returns
    // when none was caught.
    void reraise() const;
};
