// Management requests of any content, several in a row, so that settings combine; frames in between.
#include "session.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    session_prepare();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static constexpr std::array<Record, 8> KINDS = {Record::request, Record::request, Record::request,
                                                    Record::request, Record::request, Record::request,
                                                    Record::frame,   Record::change};
    session_run(bytes, size, KINDS);
    return 0;
}
