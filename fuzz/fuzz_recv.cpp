// Frames of any content, with packet information of any content, into a daemon with full tables; now and then
// a request or a change of the switch.
#include "session.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    session_prepare();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static constexpr std::array<Record, 8> KINDS = {Record::frame,   Record::frame, Record::frame,
                                                    Record::frame,   Record::frame, Record::frame,
                                                    Record::request, Record::change};
    session_run(bytes, size, KINDS);
    return 0;
}
