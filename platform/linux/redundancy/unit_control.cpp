// The part of the platform's thread that answers dhcpsnoopctl.
#include "unit_thread.h"

#include "refusals.h"
#include "report.h"

namespace platform_linux
{
namespace
{
const char *role_text(DhcpsnoopRole role)
{
    constexpr const char *TEXTS[] = {"none", "master", "slave"};
    return TEXTS[role];
}

std::optional<DhcpsnoopRole> role_of(const std::string &text)
{
    for (const DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_MASTER, DHCPSNOOP_ROLE_SLAVE})
        if (text == role_text(role))
            return role;
    return {};
}
} // namespace

std::string UnitThread::status() const
{
    const uint32_t now = this->now().wall;
    std::string text;
    const auto line = [&text](const char *name, const std::string &value) {
        text += std::string(name) + " " + value + "\n";
    };
    const auto number = [&line](const char *name, uint64_t value) { line(name, std::to_string(value)); };
    line("role", role_text(role_));
    if (link_) {
        line("peer", link_->address());
        line("link", link_->is_up() ? "up" : "down");
        if (link_->is_up())
            line("peer-role", role_text(link_->peer_role()));
        else if (!link_->trouble().empty())
            line("trouble", link_->trouble());
    }
    number("sent", sent_);
    number("received", received_);
    number("dropped", dropped_);
    if (lastCopy_ != 0) {
        number("last-copy-age", now - lastCopy_);
        number("last-copy-records", lastCopyCount_);
    }
    size_t parked = 0;
    for (const auto &[key, held] : table_.held())
        parked += held.place.waits() ? 1 : 0;
    number("without-port", parked);
    if (journal_.is_open()) {
        line("journal", journal_.path());
        line("journal-state", journal_.has_failed() ? "failed" : "written");
        number("journal-size", journal_.size());
        number("journal-records", journal_.records());
        number("journal-age", now - journal_.rewritten());
        number("journal-damaged", journal_.damaged());
    }
    return text;
}

void UnitThread::control(const std::string &request, ControlSocket::Answer answer)
{
    if (request == "status") {
        answer(status());
        return;
    }
    if (request == "refusals") {
        answer("refusals\n" + refusals_text());
        return;
    }
    constexpr std::string_view WAITING = "waiting";
    if (request.starts_with(WAITING)) {
        const size_t from = request.find(' ');
        answer(waiting(from != std::string::npos ? request.substr(from + 1) : ""));
        return;
    }
    constexpr std::string_view FORGET = "forget ";
    if (request.starts_with(FORGET)) {
        answer(forget(request.substr(FORGET.size())) ? "ok" : "no binding waits");
        return;
    }
    constexpr std::string_view ROLE = "role ";
    const auto role = request.starts_with(ROLE) ? role_of(request.substr(ROLE.size())) : std::nullopt;
    if (!role) {
        answer("unknown request");
        return;
    }
    if (*role != role_)
        platform_report(LOG_NOTICE, "role changes from %s to %s", role_text(role_), role_text(*role));
    if (role_ != *role && (role_ == DHCPSNOOP_ROLE_SLAVE || *role == DHCPSNOOP_ROLE_SLAVE)) {
        copy_.forget(); // copies go the other way now
        peerCopies_ = false;
    }
    role_ = *role;
    waiting_.push_back(std::move(answer));
}

} // namespace platform_linux
