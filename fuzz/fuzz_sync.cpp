// Packets from the peer unit, of any content, into a standby unit with full tables; events, frames and
// changes of the switch, its role among them, in between.
#include "session.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    session_prepare();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static constexpr std::array<Record, 8> KINDS = {Record::packet, Record::packet, Record::packet,
                                                    Record::packet, Record::packet, Record::event,
                                                    Record::frame,  Record::change};
    session_run(bytes, size, KINDS, true);
    return 0;
}
