/* What both ends of a connection agree on, beside the public headers. */
#pragma once

#define UBUS_MAX_MSGLEN 1048576 /* bytes of a message's blob, padded */
