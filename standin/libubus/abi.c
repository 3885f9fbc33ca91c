/* The layout of the public records. */
#include <libubus.h>

#include "../layout.h"

LAYOUT_FIELD(struct ubus_msghdr, version, 0, 0);
LAYOUT_FIELD(struct ubus_msghdr, type, 1, 1);
LAYOUT_FIELD(struct ubus_msghdr, seq, 2, 2);
LAYOUT_FIELD(struct ubus_msghdr, peer, 4, 4);
LAYOUT_SIZE(struct ubus_msghdr, 8, 8);
_Static_assert(_Alignof(struct ubus_msghdr) == 4, "struct ubus_msghdr");

LAYOUT_FIELD(struct ubus_msghdr_buf, data, 8, 8);
LAYOUT_SIZE(struct ubus_msghdr_buf, 16, 12);

LAYOUT_FIELD(struct ubus_context, requests, 0, 0);
LAYOUT_FIELD(struct ubus_context, objects, 16, 8);
LAYOUT_FIELD(struct ubus_context, pending, 64, 36);
LAYOUT_FIELD(struct ubus_context, sock, 80, 44);
LAYOUT_FIELD(struct ubus_context, pending_timer, 96, 56);
LAYOUT_FIELD(struct ubus_context, local_id, 144, 80);
LAYOUT_FIELD(struct ubus_context, request_seq, 148, 84);
LAYOUT_FIELD(struct ubus_context, cancel_poll, 150, 86);
LAYOUT_FIELD(struct ubus_context, stack_depth, 152, 88);
LAYOUT_FIELD(struct ubus_context, connection_lost, 160, 92);
LAYOUT_FIELD(struct ubus_context, monitor_cb, 168, 96);
LAYOUT_FIELD(struct ubus_context, msgbuf, 176, 100);
LAYOUT_FIELD(struct ubus_context, msgbuf_data_len, 192, 112);
LAYOUT_FIELD(struct ubus_context, msgbuf_reduction_counter, 196, 116);
LAYOUT_FIELD(struct ubus_context, auto_subscribers, 200, 120);
LAYOUT_FIELD(struct ubus_context, auto_subscribe_event_handler, 216, 128);
LAYOUT_FIELD(struct ubus_context, request_handler, 200, 120);
LAYOUT_SIZE(struct ubus_context, 344, 192);

LAYOUT_FIELD(struct ubus_method, name, 0, 0);
LAYOUT_FIELD(struct ubus_method, handler, 8, 4);
LAYOUT_FIELD(struct ubus_method, mask, 16, 8);
LAYOUT_FIELD(struct ubus_method, tags, 24, 12);
LAYOUT_FIELD(struct ubus_method, policy, 32, 16);
LAYOUT_FIELD(struct ubus_method, n_policy, 40, 20);
LAYOUT_SIZE(struct ubus_method, 48, 24);

LAYOUT_FIELD(struct ubus_object_type, name, 0, 0);
LAYOUT_FIELD(struct ubus_object_type, id, 8, 4);
LAYOUT_FIELD(struct ubus_object_type, methods, 16, 8);
LAYOUT_FIELD(struct ubus_object_type, n_methods, 24, 12);
LAYOUT_SIZE(struct ubus_object_type, 32, 16);

LAYOUT_FIELD(struct ubus_object, avl, 0, 0);
LAYOUT_FIELD(struct ubus_object, name, 56, 28);
LAYOUT_FIELD(struct ubus_object, id, 64, 32);
LAYOUT_FIELD(struct ubus_object, path, 72, 36);
LAYOUT_FIELD(struct ubus_object, type, 80, 40);
LAYOUT_FIELD(struct ubus_object, subscribe_cb, 88, 44);
LAYOUT_FIELD(struct ubus_object, has_subscribers, 96, 48);
LAYOUT_FIELD(struct ubus_object, methods, 104, 52);
LAYOUT_FIELD(struct ubus_object, n_methods, 112, 56);
LAYOUT_SIZE(struct ubus_object, 120, 60);

LAYOUT_FIELD(struct ubus_acl_key, user, 0, 0);
LAYOUT_FIELD(struct ubus_acl_key, group, 8, 4);
LAYOUT_FIELD(struct ubus_acl_key, object, 16, 8);
LAYOUT_SIZE(struct ubus_acl_key, 24, 12);

LAYOUT_FIELD(struct ubus_request_data, object, 0, 0);
LAYOUT_FIELD(struct ubus_request_data, peer, 4, 4);
LAYOUT_FIELD(struct ubus_request_data, seq, 8, 8);
LAYOUT_FIELD(struct ubus_request_data, acl, 16, 12);
LAYOUT_FIELD(struct ubus_request_data, deferred, 40, 24);
LAYOUT_FIELD(struct ubus_request_data, fd, 44, 28);
LAYOUT_FIELD(struct ubus_request_data, req_fd, 48, 32);
LAYOUT_SIZE(struct ubus_request_data, 56, 36);

LAYOUT_FIELD(struct ubus_request, list, 0, 0);
LAYOUT_FIELD(struct ubus_request, pending, 16, 8);
LAYOUT_FIELD(struct ubus_request, status_code, 32, 16);
LAYOUT_FIELD(struct ubus_request, status_msg, 36, 20);
LAYOUT_FIELD(struct ubus_request, blocked, 37, 21);
LAYOUT_FIELD(struct ubus_request, cancelled, 38, 22);
LAYOUT_FIELD(struct ubus_request, notify, 39, 23);
LAYOUT_FIELD(struct ubus_request, peer, 40, 24);
LAYOUT_FIELD(struct ubus_request, seq, 44, 28);
LAYOUT_FIELD(struct ubus_request, raw_data_cb, 48, 32);
LAYOUT_FIELD(struct ubus_request, data_cb, 56, 36);
LAYOUT_FIELD(struct ubus_request, fd_cb, 64, 40);
LAYOUT_FIELD(struct ubus_request, complete_cb, 72, 44);
LAYOUT_FIELD(struct ubus_request, fd, 80, 48);
LAYOUT_FIELD(struct ubus_request, ctx, 88, 52);
LAYOUT_FIELD(struct ubus_request, priv, 96, 56);
LAYOUT_SIZE(struct ubus_request, 104, 60);

LAYOUT_FIELD(struct ubus_notify_request, req, 0, 0);
LAYOUT_FIELD(struct ubus_notify_request, status_cb, 104, 60);
LAYOUT_FIELD(struct ubus_notify_request, complete_cb, 112, 64);
LAYOUT_FIELD(struct ubus_notify_request, data_cb, 120, 68);
LAYOUT_FIELD(struct ubus_notify_request, pending, 128, 72);
LAYOUT_FIELD(struct ubus_notify_request, id, 132, 76);
LAYOUT_SIZE(struct ubus_notify_request, 200, 144);

LAYOUT_FIELD(struct ubus_object_data, id, 0, 0);
LAYOUT_FIELD(struct ubus_object_data, type_id, 4, 4);
LAYOUT_FIELD(struct ubus_object_data, path, 8, 8);
LAYOUT_FIELD(struct ubus_object_data, signature, 16, 12);
LAYOUT_SIZE(struct ubus_object_data, 24, 16);

LAYOUT_FIELD(struct ubus_subscriber, list, 0, 0);
LAYOUT_FIELD(struct ubus_subscriber, obj, 16, 8);
LAYOUT_FIELD(struct ubus_subscriber, cb, 136, 68);
LAYOUT_FIELD(struct ubus_subscriber, remove_cb, 144, 72);
LAYOUT_FIELD(struct ubus_subscriber, new_obj_cb, 152, 76);
LAYOUT_SIZE(struct ubus_subscriber, 160, 80);

LAYOUT_FIELD(struct ubus_event_handler, obj, 0, 0);
LAYOUT_FIELD(struct ubus_event_handler, cb, 120, 60);
LAYOUT_SIZE(struct ubus_event_handler, 128, 64);
