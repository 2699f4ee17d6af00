// How the client ends when a command cannot be done: the exit status, and the line for standard error.
#pragma once

#include <stdexcept>
#include <string>

enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,   // the daemon (or the platform) said no, or the output could not be written
    EXIT_USAGE = 2,     // the command line is wrong; nothing was asked of the daemon
    EXIT_NO_DAEMON = 3, // nobody listens, may not be asked, or does not answer sensibly
};

class CtlError : public std::runtime_error
{
  public:
    CtlError(ExitStatus status, const std::string &message) : std::runtime_error(message), status_(status) {}
    ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
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

// There is nobody at the socket, so no daemon runs.
struct NobodyListens : NoDaemon {
    using NoDaemon::NoDaemon;
};
