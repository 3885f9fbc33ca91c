// The 32-bit ABI of the public records: daemons are built against it, so a member that moves or a record that grows
// breaks every daemon in the field. This file has no code. It is compiled with the library for every machine; its
// assertions hold where pointers have 32 bits and 64-bit numbers are aligned to 8 bytes, in both byte orders.
#include "abi.h"

#include "../buffer.h"
#include "../device.h"
#include "../evloop-process.h"
#include "../evloop.h"
#include "../htable.h"
#include "../httpd.h"
#include "../log.h"
#include "../sock.h"
#include "../stream.h"
#include "../ubus.h"

#define LAYOUT_SIZE(record, bytes) static_assert(!abi_is_targets || sizeof(record) == (bytes))
#define LAYOUT_FIELD(record, field, bytes)                                                                   \
	static_assert(!abi_is_targets || offsetof(record, field) == (bytes))

// log.h
LAYOUT_FIELD(ratelimit_state, burst, 4);
LAYOUT_FIELD(ratelimit_state, printed, 8);
LAYOUT_FIELD(ratelimit_state, missed, 12);
LAYOUT_FIELD(ratelimit_state, begin, 16);
LAYOUT_SIZE(ratelimit_state, 24);

// evloop-process.h
LAYOUT_FIELD(evloop_process, prev, 4);
LAYOUT_FIELD(evloop_process, pending, 8);
LAYOUT_FIELD(evloop_process, pid, 12);
LAYOUT_FIELD(evloop_process, cb, 16);
LAYOUT_SIZE(evloop_process, 20);

// evloop.h
LAYOUT_FIELD(evloop_io, fd, 4);
LAYOUT_FIELD(evloop_io, flags, 9);
LAYOUT_SIZE(evloop_io, 12);

LAYOUT_FIELD(evloop_timeout, prev, 4);
LAYOUT_FIELD(evloop_timeout, pending, 8);
LAYOUT_FIELD(evloop_timeout, cb, 12);
LAYOUT_FIELD(evloop_timeout, expires, 16);
LAYOUT_SIZE(evloop_timeout, 24);

// buffer.h
LAYOUT_FIELD(buffer, size, 4);
LAYOUT_FIELD(buffer, length, 8);
LAYOUT_SIZE(buffer, 12);

// stream.h
LAYOUT_FIELD(stream, state_timer, 16);
LAYOUT_FIELD(stream, read_timer, 40);
LAYOUT_FIELD(stream, tx, 64);
LAYOUT_FIELD(stream, rx, 68);
LAYOUT_FIELD(stream, state, 72);
LAYOUT_FIELD(stream, read, 76);
LAYOUT_FIELD(stream, write, 80);
LAYOUT_FIELD(stream, notify_read, 84);
LAYOUT_FIELD(stream, notify_state, 88);
LAYOUT_FIELD(stream, notify_write, 92);
LAYOUT_SIZE(stream, 96);

// sock.h
LAYOUT_FIELD(sock, accept_cb, 12);
LAYOUT_FIELD(sock, user, 16);
LAYOUT_FIELD(sock, flags, 20);
LAYOUT_SIZE(sock, 24);

LAYOUT_FIELD(stable_connection, on_connected, 4);
LAYOUT_FIELD(stable_connection, connected, 8);
LAYOUT_FIELD(stable_connection, retry_pending, 9);
LAYOUT_FIELD(stable_connection, timer, 16);
LAYOUT_FIELD(stable_connection, retry_delay, 40);
LAYOUT_SIZE(stable_connection, 48);

// htable.h
LAYOUT_FIELD(htable, prime_mod, 4);
LAYOUT_FIELD(htable, mask, 8);
LAYOUT_FIELD(htable, live_count, 12);
LAYOUT_FIELD(htable, used_count, 16);
LAYOUT_FIELD(htable, hashes, 20);
LAYOUT_FIELD(htable, keys, 24);
LAYOUT_FIELD(htable, values, 28);
LAYOUT_FIELD(htable, hash_fn, 32);
LAYOUT_FIELD(htable, equal_fn, 36);
LAYOUT_FIELD(htable, refcount, 40);
LAYOUT_FIELD(htable, key_free_fn, 44);
LAYOUT_FIELD(htable, value_free_fn, 48);
LAYOUT_SIZE(htable, 52);

// httpd.h
LAYOUT_FIELD(httpd_link, prev, 4);
LAYOUT_SIZE(httpd_link, 8);

LAYOUT_FIELD(httpd_ctx, connections, 4);
LAYOUT_SIZE(httpd_ctx, 12);

LAYOUT_FIELD(httpd_conn, stream, 8);
LAYOUT_FIELD(httpd_conn, node, 104);
LAYOUT_FIELD(httpd_conn, idle_timer, 112);
LAYOUT_FIELD(httpd_conn, version, 136);
LAYOUT_FIELD(httpd_conn, method, 140);
LAYOUT_FIELD(httpd_conn, target, 144);
LAYOUT_FIELD(httpd_conn, target_len, 148);
LAYOUT_FIELD(httpd_conn, host, 152);
LAYOUT_FIELD(httpd_conn, host_len, 156);
LAYOUT_FIELD(httpd_conn, path, 160);
LAYOUT_FIELD(httpd_conn, path_len, 164);
LAYOUT_FIELD(httpd_conn, query, 168);
LAYOUT_FIELD(httpd_conn, query_len, 172);
LAYOUT_FIELD(httpd_conn, head_start, 176);
LAYOUT_FIELD(httpd_conn, head_end, 180);
LAYOUT_FIELD(httpd_conn, head_len, 184);
LAYOUT_FIELD(httpd_conn, body, 188);
LAYOUT_FIELD(httpd_conn, body_len, 192);
LAYOUT_FIELD(httpd_conn, arg, 196);
LAYOUT_FIELD(httpd_conn, flags, 200);
LAYOUT_FIELD(httpd_conn, decoded_path, 204);
LAYOUT_FIELD(httpd_conn, close_requested, 208);
LAYOUT_FIELD(httpd_conn, content_length, 212);
LAYOUT_FIELD(httpd_conn, state, 216);
LAYOUT_FIELD(httpd_conn, headers, 220);
LAYOUT_FIELD(httpd_conn, res_head, 224);
LAYOUT_FIELD(httpd_conn, res_body, 228);
LAYOUT_SIZE(httpd_conn, 232);

// ubus.h
LAYOUT_FIELD(ubus_retry_request, method, 4);
LAYOUT_FIELD(ubus_retry_request, object, 36);
LAYOUT_FIELD(ubus_retry_request, prepare_cb, 68);
LAYOUT_FIELD(ubus_retry_request, data_cb, 72);
LAYOUT_FIELD(ubus_retry_request, req, 76);
LAYOUT_FIELD(ubus_retry_request, buf, 136);
LAYOUT_FIELD(ubus_retry_request, retry_timer, 152);
LAYOUT_FIELD(ubus_retry_request, reply_timer, 176);
LAYOUT_FIELD(ubus_retry_request, pending, 200);
LAYOUT_SIZE(ubus_retry_request, 208);

LAYOUT_FIELD(ubus_subscription, subscriber, 4);
LAYOUT_FIELD(ubus_subscription, retry, 88);
LAYOUT_FIELD(ubus_subscription, path, 112);
LAYOUT_FIELD(ubus_subscription, subscribed_cb, 144);
LAYOUT_SIZE(ubus_subscription, 152);

// device.h
LAYOUT_FIELD(device_switch, cpu, 4);
LAYOUT_FIELD(device_switch, cpu_lan, 8);
LAYOUT_FIELD(device_switch, wan, 12);
LAYOUT_FIELD(device_switch, lan, 16);
LAYOUT_SIZE(device_switch, 20);

LAYOUT_FIELD(device, vendor, 4);
LAYOUT_FIELD(device, name, 8);
LAYOUT_FIELD(device, sw, 12);
LAYOUT_FIELD(device, wan_iface, 16);
LAYOUT_FIELD(device, lan_iface, 20);
LAYOUT_FIELD(device, radio1_phy, 24);
LAYOUT_FIELD(device, radio1_mode, 28);
LAYOUT_FIELD(device, radio2_phy, 32);
LAYOUT_FIELD(device, radio2_mode, 36);
LAYOUT_FIELD(device, led_set, 40);
LAYOUT_FIELD(device, init, 44);
LAYOUT_FIELD(device, post_upgrade, 48);
LAYOUT_SIZE(device, 52);
