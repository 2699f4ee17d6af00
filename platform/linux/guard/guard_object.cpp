// Puts the compiled classifier into the program. GUARD_OBJECT_DIR is where the build left (or found) it.
#include "guard_object.h"

#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#define GUARD_OBJECT_FILE GUARD_OBJECT_DIR "/guard.bpfeb.o"
#else
#define GUARD_OBJECT_FILE GUARD_OBJECT_DIR "/guard.bpfel.o"
#endif

__asm__(".pushsection .rodata, \"a\"\n"
        ".balign 16\n"
        ".global guard_object_begin, guard_object_end\n"
        "guard_object_begin:\n"
        ".incbin \"" GUARD_OBJECT_FILE "\"\n"
        "guard_object_end:\n"
        ".byte 0\n"
        ".popsection\n");
