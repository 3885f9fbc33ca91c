/* What blobmsg needs of blob beyond the public functions. */
#pragma once
#include <libubox/blob.h>

/* The offset of `head`, the attribute that appends go to. */
size_t blob_head_offset(const struct blob_buf *buf) __attribute__((visibility("hidden")));

/* Makes `inner` the head; it was just appended to the attribute at `outer_offset`. Returns a cookie for blob_nest_end. */
void *blob_nest_enter(struct blob_buf *buf, size_t outer_offset, struct blob_attr *inner)
	__attribute__((visibility("hidden")));
