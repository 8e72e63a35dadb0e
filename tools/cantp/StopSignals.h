// SIGINT and SIGTERM as an event a command's main loop can wait for.
#pragma once

/// While alive, SIGINT and SIGTERM do not end the process: each writes one byte into a pipe
/// whose read end, fd(), the main loop polls. The previous handlers are restored on
/// destruction. One instance at a time per process; constructed and destroyed by the main
/// thread.
class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// Readable once a stop signal has arrived.
    int fd() const { return pipeFds[0]; }
    /// True if a stop signal has arrived (does not block).
    bool raised() const;

  private:
    int pipeFds[2] = {-1, -1};
};
