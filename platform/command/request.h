// Requests to the daemon and the values of its replies. The daemon need not be ours or of this version: every
// reply is checked before it is read.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "adr_request.h"
#include "error.h"

using Bytes = AdrBytes;
using UserKey = AdrUserKey;
using ServerKey = AdrServerKey;
using RequestIndex = AdrIndex;
using Request = AdrRequest;

// Room that a request must bring for the key that a First or Next writes over its data item.
constexpr size_t USER_KEY_ROOM = 28, SERVER_KEY_ROOM = 12;

// A reply as the daemon wrote it over the request. The constructor throws NoDaemon when it cannot be the
// answer to `request`, and so do the readers when the item asked for is not there; a reply of length 0, by
// which the daemon says that it could not decode the request, is a CtlError of status refused.
class Reply
{
  public:
    Reply(const Request &request, Bytes body);
    Reply(Reply &&) = default;

    uint32_t result() const { return result_; } // NM_OK or a result code
    uint32_t word();
    Bytes bytes();
    UserKey userKey();
    ServerKey serverKey();

  private:
    Bytes item(uint8_t type);

    Bytes body_;
    AdrMsg rest_; // in it, at the next data item
    uint32_t result_ = 0;
};

// The daemon refused: carries the result code and says its meaning, with `note` at the end. The name and the
// number of the code are its detail.
struct Refusal : CtlError {
    Refusal(uint32_t resultCode, const std::string &what, const std::string &note = "");
    uint32_t code;
};

// "no such entry or interface", and "NM_NO_ENTRY (0x3E80002)". A code without a name is given as a number.
std::string resultMeaning(uint32_t code);
std::string resultName(uint32_t code);

// Takes the body of a request to a daemon and brings the body of the reply; throws NoDaemon.
using Exchange = std::function<Bytes(const Bytes &body)>;

class Daemon
{
  public:
    explicit Daemon(Exchange exchange) : exchange_(std::move(exchange)) {}

    // Throws NoDaemon; a refusal is the reply's result.
    Reply ask(const Request &request) const;

    // The same, with a refusal thrown as such. `what` names the request in its message.
    Reply demand(const Request &request, const std::string &what) const;

  private:
    Exchange exchange_;
};
