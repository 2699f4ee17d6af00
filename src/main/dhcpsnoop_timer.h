// The lease scan: does nothing when the last one was less than 60 s ago.
#pragma once

void dhcpsnoop_user_timer_check(void);
