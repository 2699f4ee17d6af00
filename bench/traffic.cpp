// Plays the clients on one link and the servers on another, with something in between that forwards DHCP:
// sends DISCOVER, OFFER, REQUEST and ACK of many clients in turn, waits for each frame at the other end, and
// prints as one JSON object what came of it.
//
//   bench_traffic CLIENT-DEVICE SERVER-DEVICE [--clients N] [--seconds S | --rounds N] [--window N] [--rate
//   N]
//                 [--relay GIADDR MAC] [--leases-only] [--ipv6]
//
// --window   frames on their way at most (128): without --rate this is what paces
// --rate     frames a second
// --bursts   stop that process while a window full is sent, and let it work that off: it never waits for a
// frame
// --rounds   each client so many exchanges, instead of a time
// --relay    replies go to this relay agent's address
// --leases-only  REQUEST and ACK alone
// --ipv6     SOLICIT, ADVERTISE, REQUEST and REPLY instead
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <sched.h>
#include <signal.h>
#include <sys/types.h>

#include "link.h"
#include "matcher.h"
#include "messages.h"
#include "pacer.h"
#include "statistics.h"

namespace
{

struct Options {
    std::string clientDevice, serverDevice;
    uint32_t clients = 256, window = 128;
    uint64_t rate = 0, rounds = 0;
    double seconds = 1;
    uint32_t giaddr = 0;
    uint8_t relayMac[6] = {};
    bool leasesOnly = false, ipv6 = false;
    pid_t between = 0;
};

[[noreturn]] void usage()
{
    fprintf(stderr,
            "usage: bench_traffic CLIENT-DEVICE SERVER-DEVICE [--clients N] [--seconds S | --rounds N] "
            "[--window N] [--rate N] [--bursts PID] [--relay GIADDR MAC] [--leases-only] [--ipv6]\n");
    exit(2);
}

Options read_options(int argc, char **argv)
{
    Options options;
    if (argc < 3)
        usage();
    options.clientDevice = argv[1];
    options.serverDevice = argv[2];
    for (int i = 3; i < argc; i++) {
        const std::string_view word = argv[i];
        const auto value = [&] { return i + 1 < argc ? argv[++i] : (usage(), nullptr); };
        if (word == "--clients")
            options.clients = static_cast<uint32_t>(std::max(1l, atol(value())));
        else if (word == "--seconds")
            options.seconds = atof(value());
        else if (word == "--rounds")
            options.rounds = strtoull(value(), nullptr, 10);
        else if (word == "--window")
            options.window = static_cast<uint32_t>(std::max(4l, atol(value())));
        else if (word == "--rate")
            options.rate = strtoull(value(), nullptr, 10);
        else if (word == "--leases-only")
            options.leasesOnly = true;
        else if (word == "--ipv6")
            options.ipv6 = true;
        else if (word == "--bursts")
            options.between = static_cast<pid_t>(atol(value()));
        else if (word == "--relay") {
            in_addr address = {};
            uint8_t *mac = options.relayMac;
            if (inet_pton(AF_INET, value(), &address) != 1 ||
                sscanf(value(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", mac, mac + 1, mac + 2, mac + 3, mac + 4,
                       mac + 5) != 6)
                usage();
            options.giaddr = ntohl(address.s_addr);
        } else
            usage();
    }
    return options;
}

// The exchanges of all clients in turn, in batches: first what the clients send, then what the servers do, so
// that a REQUEST is always ahead of its ACK.
class Exchanges
{
  public:
    Exchanges(const Options &options, Link &clients, Link &servers)
        : options_(options), clients_(clients), servers_(servers), exchange_{.serverMac = servers.address()}
    {
        exchange_.giaddr = options.giaddr;
        if (options.giaddr != 0)
            exchange_.relayMac = options.relayMac;
    }

    uint32_t frames_each() const { return options_.leasesOnly ? 2 : 4; }
    uint64_t done() const { return done_; }

    void send(uint64_t count, Matcher &matcher, Clock::time_point now)
    {
        send_side(count, {Message::discover, Message::request}, clients_, matcher, now);
        send_side(count, {Message::offer, Message::ack}, servers_, matcher, now);
        done_ += count;
    }

  private:
    void send_side(uint64_t count, const Message (&messages)[2], Link &link, Matcher &matcher,
                   Clock::time_point now)
    {
        uint8_t frame[FRAME_LENGTH];
        for (uint64_t i = 0; i < count; i++) {
            exchange_.client = static_cast<uint32_t>((done_ + i) % options_.clients);
            for (size_t which = options_.leasesOnly ? 1 : 0; which < 2; which++) {
                (options_.ipv6 ? write_message6 : write_message)(frame, messages[which], matcher.sent(now),
                                                                 exchange_);
                link.send(frame);
            }
        }
        link.flush();
    }

    const Options &options_;
    Link &clients_, &servers_;
    Exchange exchange_;
    uint64_t done_ = 0;
};

class Run
{
  public:
    explicit Run(const Options &options)
        : options_(options), clients_(options.clientDevice, ether_type(options)),
          servers_(options.serverDevice, ether_type(options)), exchanges_(options, clients_, servers_),
          matcher_(options.window, PATIENCE)
    {
        if (options.rounds != 0)
            wanted_ = options.rounds * options.clients;
        else
            end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(options.seconds));
    }

    // As many on their way as the window and the pace allow.
    void steadily()
    {
        const Clock::time_point start = Clock::now();
        Pacer pacer(options_.rate / exchanges_.frames_each(), start);
        while (more() || matcher_.on_their_way() > 0) {
            if (more())
                send(pacer.allow(std::min(room(), EXCHANGES_AT_ONCE), Clock::now()));
            receive();
        }
        statistics_.worked(Clock::now() - start);
    }

    // A window full while the process in between is stopped; then it works that off.
    void in_bursts(pid_t between)
    {
        while (more()) {
            signal_to(between, SIGSTOP);
            send(room());
            const Clock::time_point start = Clock::now();
            signal_to(between, SIGCONT);
            while (matcher_.on_their_way() > 0)
                receive();
            statistics_.worked(Clock::now() - start);
        }
    }

    void print() const
    {
        printf(
            "{\"forwarded\": %llu, \"lost\": %llu, \"unknown\": %llu, \"seconds\": %.6f, \"median_us\": %zu, "
            "\"p99_us\": %zu, \"max_us\": %zu}\n",
            static_cast<unsigned long long>(statistics_.forwarded()),
            static_cast<unsigned long long>(matcher_.lost()),
            static_cast<unsigned long long>(matcher_.unknown()), statistics_.seconds(),
            statistics_.percentile(50), statistics_.percentile(99), statistics_.percentile(100));
    }

  private:
    static constexpr uint64_t EXCHANGES_AT_ONCE = 16;
    static constexpr auto PATIENCE = std::chrono::seconds(2); // for a machine that does other things too

    static uint16_t ether_type(const Options &options) { return options.ipv6 ? ETH_P_IPV6 : ETH_P_IP; }

    bool more() const { return exchanges_.done() < wanted_ && Clock::now() < end_; }

    uint64_t room() const
    {
        return std::min(matcher_.room() / exchanges_.frames_each(), wanted_ - exchanges_.done());
    }

    void send(uint64_t count) { exchanges_.send(count, matcher_, Clock::now()); }

    void receive()
    {
        size_t received = 0;
        for (Link *link : {&clients_, &servers_}) {
            received += link->receive([this](std::span<const uint8_t> frame) {
                uint32_t number;
                if (!(options_.ipv6 ? read_number6 : read_number)(frame, &number))
                    return;
                if (const auto took = matcher_.received(number, Clock::now()))
                    statistics_.forwarded(*took);
            });
        }
        if (received == 0) {
            matcher_.advance(Clock::now());
            sched_yield(); // where there is one processor only, the other side needs it
        }
    }

    static void signal_to(pid_t process, int number)
    {
        if (kill(process, number) != 0)
            die("the process in between");
    }

    const Options &options_;
    Link clients_, servers_;
    Exchanges exchanges_;
    Matcher matcher_;
    Statistics statistics_;
    Clock::time_point end_ = Clock::time_point::max();
    uint64_t wanted_ = UINT64_MAX; // exchanges
};

} // namespace

int main(int argc, char **argv)
{
    const Options options = read_options(argc, argv);
    static Run run(options);
    if (options.between != 0)
        run.in_bursts(options.between);
    else
        run.steadily();
    run.print();
}
