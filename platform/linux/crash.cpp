// The crash reporter: what killed the daemon and where, on standard error, before it dies of it as it would
// have. Uses only what a signal handler may.
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <execinfo.h>
#include <string_view>
#include <unistd.h>

#include "platform.h"

namespace
{
struct CrashSignal {
    int number;
    std::string_view name;
};
constexpr CrashSignal SIGNALS[] = {
    {SIGSEGV, "SIGSEGV"},
    {SIGBUS,  "SIGBUS" },
    {SIGFPE,  "SIGFPE" },
    {SIGILL,  "SIGILL" },
    {SIGABRT, "SIGABRT"},
};
constexpr int FRAMES_MAX = 64;
constexpr int HANDLER_FRAMES = 1; // the handler itself
constexpr unsigned REPORT_SECONDS = 2;

std::array<char, 65536> handlerStack; // a stack that overflowed is no place to report it from

// A line of text without stdio.
struct Line {
    std::array<char, 256> text;
    size_t used = 0;

    void add(std::string_view part)
    {
        const size_t count = part.size() < text.size() - used ? part.size() : text.size() - used;
        memcpy(text.data() + used, part.data(), count);
        used += count;
    }

    void add_hex(uintptr_t value)
    {
        std::array<char, 2 * sizeof value> digits;
        size_t at = digits.size();
        do {
            digits[--at] = "0123456789abcdef"[value % 16];
            value /= 16;
        } while (value != 0);
        add("0x");
        add({digits.data() + at, digits.size() - at});
    }
};

void report_crash(int number, siginfo_t *info, void *)
{
    alarm(REPORT_SECONDS); // standard error may have a reader that stopped: the report ends then, and the
                           // process
    Line line;
    line.add("dhcpsnoop: killed by ");
    for (const CrashSignal &signal : SIGNALS)
        if (signal.number == number)
            line.add(signal.name);
    line.add(" at address ");
    line.add_hex(reinterpret_cast<uintptr_t>(info->si_addr));
    line.add(", called from:\n");
    ssize_t ignored = write(STDERR_FILENO, line.text.data(), line.used);
    static_cast<void>(ignored);
    std::array<void *, FRAMES_MAX> frames;
    const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
    if (count > HANDLER_FRAMES)
        backtrace_symbols_fd(frames.data() + HANDLER_FRAMES, count - HANDLER_FRAMES, STDERR_FILENO);
    // The default action is restored (SA_RESETHAND); the signal comes again when this returns, whoever sent
    // it.
    raise(number);
}

// Nothing that is thrown leaves the rooms that throw, but for want of memory or threads.
[[noreturn]] void report_want()
{
    constexpr std::string_view TEXT =
        "dhcpsnoop: out of memory or threads, the daemon ends; see its limits (ulimit -a, systemctl show dhcpsnoop)\n";
    ssize_t ignored = write(STDERR_FILENO, TEXT.data(), TEXT.size());
    static_cast<void>(ignored);
    _exit(EXIT_FAILURE); // the service manager starts another one
}
} // namespace

void qorCatchSegFault(int, char **)
{
    std::set_terminate(report_want);
    // The first call loads the unwinder, which allocates.
    void *frame;
    backtrace(&frame, 1);
    stack_t stack{};
    stack.ss_sp = handlerStack.data();
    stack.ss_size = handlerStack.size();
    sigaltstack(&stack, nullptr);
    struct sigaction action {
    };
    action.sa_sigaction = report_crash;
    action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND | SA_ONSTACK);
    for (const CrashSignal &signal : SIGNALS)
        sigaction(signal.number, &action, nullptr);
}
