#include "config_thread.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

#include "clock.h"
#include "config.h"
#include "control_socket.h"
#include "private_listener.h"
#include "report.h"
#include "wake.h"

namespace platform_linux
{
namespace
{

using Ask = std::function<std::string(const std::string &)>;

constexpr Ticks LOOK_AGAIN = 1000; // for a time that another thread set

std::atomic<Ticks> confirmBy = NEVER;

sigset_t taken_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGTERM, SIGINT})
        sigaddset(&signals, signal);
    return signals;
}

void log_lines(const std::string &answer)
{
    for (size_t begin = 0; begin < answer.size(); begin = answer.find('\n', begin) + 1)
        if (const std::string line = answer.substr(begin, answer.find('\n', begin) - begin); line != "ok")
            platform_report(LOG_ERR, "%s", line.c_str());
}

// As the signal would have ended the process, without the socket files.
[[noreturn]] void end_by(uint32_t signal)
{
    private_listeners_unlink();
    const sigset_t signals = taken_signals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    std::signal(static_cast<int>(signal), SIG_DFL);
    kill(getpid(), static_cast<int>(signal));
    _exit(128 + static_cast<int>(signal));
}

[[noreturn]] void serve(const Ask &ask)
{
    const sigset_t signals = taken_signals();
    const Fd signalled(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!signalled)
        throw std::runtime_error(strerror(errno));
    ControlSocket control(
        [&ask](const std::string &request, const ControlSocket::Answer &answer) { answer(ask(request)); });
    std::string error;
    if (!control.open(config_runtime("config").c_str(), error))
        platform_report(LOG_WARNING, "the configuration cannot be changed by the client: %s", error.c_str());
    for (;;) {
        std::vector<pollfd> descriptors = {
            {signalled.get(), POLLIN, 0}
        };
        control.watch(descriptors);
        fflush(stdout); // a trace whose last line does not end, as that of a dump, waits for no other frame
        const Ticks now = ticks(), until = std::min({confirmBy.load(), control.deadline(), now + LOOK_AGAIN});
        if (poll(descriptors.data(), descriptors.size(), static_cast<int>(std::max<Ticks>(until - now, 0))) <
                0 &&
            errno != EINTR)
            throw std::runtime_error(strerror(errno));
        signalfd_siginfo signal;
        if (read(signalled.get(), &signal, sizeof signal) == sizeof signal) {
            if (signal.ssi_signo != SIGHUP)
                end_by(signal.ssi_signo);
            log_lines(ask("reload"));
        }
        descriptors.erase(descriptors.begin());
        control.serve(descriptors, ticks());
        wake_those_who_wait();
        if (ticks() >= confirmBy) {
            confirmBy = NEVER;
            log_lines(ask("revert"));
        }
    }
}

} // namespace

void config_signals_block()
{
    const sigset_t signals = taken_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void config_thread_start(Ask ask)
{
    std::thread([ask = std::move(ask)] {
        try {
            serve(ask);
        } catch (const std::exception &error) {
            platform_report(LOG_ERR, "no signals and no configuration can be taken, the daemon ends: %s",
                            error.what());
        }
        _exit(EXIT_FAILURE); // nobody could end the process but by SIGKILL
    }).detach();
}

void config_confirm_by(std::optional<std::chrono::seconds> time)
{
    confirmBy = time ? ticks() + std::chrono::duration_cast<std::chrono::milliseconds>(*time).count() : NEVER;
}

} // namespace platform_linux
