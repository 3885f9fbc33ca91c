/*
 * ubus_common - types of a method's signature beyond those of named attributes.
 */
#pragma once

#define UBUS_SIGNATURE_METHOD (BLOBMSG_TYPE_LAST + 1)
#define UBUS_SIGNATURE_END    (BLOBMSG_TYPE_LAST + 2)
