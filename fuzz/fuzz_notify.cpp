// Datagrams of platform events of any content into a daemon with full tables; frames, requests and changes of
// the switch in between.
#include "session.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    session_prepare();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static constexpr std::array<Record, 8> KINDS = {Record::event, Record::event, Record::event,
                                                    Record::event, Record::event, Record::request,
                                                    Record::frame, Record::change};
    session_run(bytes, size, KINDS);
    return 0;
}
