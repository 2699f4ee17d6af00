// Failures of a command: the exit status, and the line for standard error.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,   // the daemon or the platform refused, or the output could not be written
    EXIT_USAGE = 2,     // the command line is wrong; nothing was asked of the daemon
    EXIT_NO_DAEMON = 3, // no daemon, no right to ask it, or a malformed answer
};

class CtlError : public std::runtime_error
{
  public:
    CtlError(ExitStatus status, const std::string &message, std::string detail = "")
        : std::runtime_error(message), status_(status), detail_(std::move(detail))
    {
    }
    ExitStatus status() const { return status_; }
    // For those who ask for more than the message: the name and code of a result, or nothing.
    const std::string &detail() const { return detail_; }

  private:
    ExitStatus status_;
    std::string detail_;
};

struct UsageError : CtlError {
    explicit UsageError(const std::string &message) : CtlError(EXIT_USAGE, message) {}
};

struct NoInterface : UsageError {
    using UsageError::UsageError;
};

struct NoDaemon : CtlError {
    explicit NoDaemon(const std::string &message) : CtlError(EXIT_NO_DAEMON, message) {}
};

// Nobody listens at the socket: no daemon runs.
struct NobodyListens : NoDaemon {
    using NoDaemon::NoDaemon;
};
