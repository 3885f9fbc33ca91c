/*
 * What both ends of a connection agree on, and no public header says.
 */
#pragma once

#define UBUS_MAX_MSGLEN 1048576 /* bytes of a message's blob, padded */
