// Frames of any content, with packet information of any content, into a daemon with full tables. One byte
// chooses the state, then records follow: mostly frames, now and then a request or a change of the switch.
#include "session.h"

constexpr int RECORDS_MAX = 24;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    session_prepare();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Input input(bytes, size);
    session_begin(input.u8());
    for (int i = 0; i < RECORDS_MAX && input.more(); i++) {
        switch (input.u8() % 8) {
        case 6:
            session_request(input);
            break;
        case 7:
            session_world(input);
            break;
        default:
            session_frame(input);
            break;
        }
    }
    session_end();
    return 0;
}
