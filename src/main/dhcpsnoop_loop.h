// The loop.
#pragma once

[[noreturn]] void dhcpsnoop_main(void);
void dhcpsnoop_main_pass(void); // one pass of the loop: waits at most 60 s, serves each source at most once
