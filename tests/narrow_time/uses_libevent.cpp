#include "handles/libevent.h"
