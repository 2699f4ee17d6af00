// Plays the clients on one link and the servers on another, with something in between that forwards DHCP:
// sends DISCOVER, OFFER, REQUEST and ACK of many clients in turn, waits for each frame at the other end, and
// prints as one JSON object what came of it.
//
//   bench_traffic CLIENT-DEVICE SERVER-DEVICE [--clients N] [--seconds S | --rounds N] [--window N] [--rate
//   N]
//                 [--relay GIADDR MAC] [--leases-only]
//
// --window   frames on their way at most (128): without --rate this is what paces
// --rate     frames a second
// --rounds   each client so many exchanges, instead of a time
// --relay    replies go to this relay agent's address
// --leases-only  REQUEST and ACK alone
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <sched.h>

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
    bool leasesOnly = false;
};

[[noreturn]] void usage()
{
    fprintf(stderr,
            "usage: bench_traffic CLIENT-DEVICE SERVER-DEVICE [--clients N] [--seconds S | --rounds N] "
            "[--window N] [--rate N] [--relay GIADDR MAC] [--leases-only]\n");
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
                write_message(frame, messages[which], matcher.sent(now), exchange_);
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

} // namespace

int main(int argc, char **argv)
{
    constexpr uint64_t EXCHANGES_AT_ONCE = 16;
    const auto patience = std::chrono::seconds(2); // for a machine that does other things too
    const Options options = read_options(argc, argv);
    static Link clients(options.clientDevice), servers(options.serverDevice);

    const Clock::time_point start = Clock::now();
    const Clock::time_point end = options.rounds != 0
                                      ? Clock::time_point::max()
                                      : start + std::chrono::duration_cast<Clock::duration>(
                                                    std::chrono::duration<double>(options.seconds));
    const uint64_t wanted = options.rounds != 0 ? options.rounds * options.clients : UINT64_MAX;
    Matcher matcher(options.window, patience);
    Statistics statistics(start);
    Pacer pacer(options.rate / (options.leasesOnly ? 2 : 4), start);
    Exchanges exchanges(options, clients, servers);

    for (bool sending = true; sending || matcher.on_their_way() > 0;) {
        Clock::time_point now = Clock::now();
        sending = sending && now < end && exchanges.done() < wanted;
        if (sending) {
            const uint64_t fits = std::min(matcher.room() / exchanges.frames_each(), EXCHANGES_AT_ONCE);
            const uint64_t count = pacer.allow(std::min(fits, wanted - exchanges.done()), now);
            if (count > 0)
                exchanges.send(count, matcher, now);
        }

        size_t received = 0;
        for (Link *link : {&clients, &servers}) {
            received += link->receive([&](std::span<const uint8_t> frame) {
                uint32_t xid;
                if (!read_xid(frame, &xid))
                    return;
                now = Clock::now();
                if (const auto took = matcher.received(xid, now))
                    statistics.forwarded(*took, now);
            });
        }
        if (received == 0) {
            matcher.advance(Clock::now());
            sched_yield(); // where there is one processor only, the other side needs it
        }
    }
    printf("{\"forwarded\": %llu, \"lost\": %llu, \"unknown\": %llu, \"seconds\": %.6f, \"median_us\": %zu, "
           "\"p99_us\": %zu}\n",
           static_cast<unsigned long long>(statistics.forwarded()),
           static_cast<unsigned long long>(matcher.lost()),
           static_cast<unsigned long long>(matcher.unknown()), statistics.seconds(),
           statistics.percentile(50), statistics.percentile(99));
}
