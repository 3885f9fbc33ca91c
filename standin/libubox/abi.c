/* The layout of the public records. */
#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>

#include "../layout.h"

LAYOUT_SIZE(struct list_head, 16, 8);

LAYOUT_FIELD(struct avl_node, list, 0, 0);
LAYOUT_FIELD(struct avl_node, parent, 16, 8);
LAYOUT_FIELD(struct avl_node, left, 24, 12);
LAYOUT_FIELD(struct avl_node, right, 32, 16);
LAYOUT_FIELD(struct avl_node, key, 40, 20);
LAYOUT_FIELD(struct avl_node, balance, 48, 24);
LAYOUT_FIELD(struct avl_node, leader, 49, 25);
LAYOUT_SIZE(struct avl_node, 56, 28);

LAYOUT_FIELD(struct avl_tree, list_head, 0, 0);
LAYOUT_FIELD(struct avl_tree, root, 16, 8);
LAYOUT_FIELD(struct avl_tree, count, 24, 12);
LAYOUT_FIELD(struct avl_tree, allow_dups, 28, 16);
LAYOUT_FIELD(struct avl_tree, comp, 32, 20);
LAYOUT_FIELD(struct avl_tree, cmp_ptr, 40, 24);
LAYOUT_SIZE(struct avl_tree, 48, 28);

LAYOUT_SIZE(struct blob_attr, 4, 4);
LAYOUT_FIELD(struct blob_attr, data, 4, 4);

LAYOUT_FIELD(struct blob_attr_info, minlen, 4, 4);
LAYOUT_FIELD(struct blob_attr_info, maxlen, 8, 8);
LAYOUT_FIELD(struct blob_attr_info, validate, 16, 12);
LAYOUT_SIZE(struct blob_attr_info, 24, 16);

LAYOUT_FIELD(struct blob_buf, head, 0, 0);
LAYOUT_FIELD(struct blob_buf, grow, 8, 4);
LAYOUT_FIELD(struct blob_buf, buflen, 16, 8);
LAYOUT_FIELD(struct blob_buf, buf, 24, 12);
LAYOUT_SIZE(struct blob_buf, 32, 16);

LAYOUT_FIELD(struct blobmsg_hdr, name, 2, 2);
LAYOUT_SIZE(struct blobmsg_hdr, 2, 2);

LAYOUT_FIELD(struct blobmsg_policy, type, 8, 4);
LAYOUT_SIZE(struct blobmsg_policy, 16, 8);

LAYOUT_FIELD(struct uloop_fd, cb, 0, 0);
LAYOUT_FIELD(struct uloop_fd, fd, 8, 4);
LAYOUT_FIELD(struct uloop_fd, eof, 12, 8);
LAYOUT_FIELD(struct uloop_fd, error, 13, 9);
LAYOUT_FIELD(struct uloop_fd, registered, 14, 10);
LAYOUT_FIELD(struct uloop_fd, flags, 15, 11);
LAYOUT_SIZE(struct uloop_fd, 16, 12);

LAYOUT_FIELD(struct uloop_timeout, list, 0, 0);
LAYOUT_FIELD(struct uloop_timeout, pending, 16, 8);
LAYOUT_FIELD(struct uloop_timeout, cb, 24, 12);
LAYOUT_FIELD(struct uloop_timeout, time, 32, 16);
LAYOUT_SIZE(struct uloop_timeout, 48, 24);
