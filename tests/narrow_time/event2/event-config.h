/* A libevent that was built with a time_t of 32 bits, as far as its header tells. */
#pragma GCC system_header
#include_next <event2/event-config.h>
#undef EVENT__SIZEOF_TIME_T
#define EVENT__SIZEOF_TIME_T 4
