/*
 * http - answers of an HTTP server, and the choice of the function that answers.
 *
 * A handler composes an answer in the connection's two buffers and returns what the answer_* functions
 * return: 1 to keep the connection, 0 to close it.
 */
#pragma once
#include <jansson.h>
#include <stddef.h>

#include "lib/httpd.h"

struct route {
	const char *path;
	int32_t method;
	int32_t (*answer)(struct httpd_conn *conn);
};

/*
 * Has the route of this path and method answer; 404 for an unknown path, 405 for another method. HEAD is answered like
 * GET, without the body.
 *
 * First, requests are refused by guard.h: with 400 and the end of the connection if the end of the body is unclear; with
 * 403 if the method may change something and the request is not meant for us. `host_name` is a name that clients reach
 * us by; null: only by our address.
 */
int32_t answer_by_route(
	struct httpd_conn *conn, const struct route *routes, size_t count, const char *host_name);

/* Sends an error page, and drops the composed answer. */
int32_t answer_error(struct httpd_conn *conn, int code);

/* Sends a head and the body composed in `res_body`; an error page if the head cannot be composed. */
int32_t answer_body(struct httpd_conn *conn, const char *content_type);

/* Sends `json`, and drops the reference to it. Null (memory was exhausted) becomes an error page. */
int32_t answer_json(struct httpd_conn *conn, json_t *json);

/* Appends a text to one of the connection's buffers. */
void put_text(struct buffer *buffer, const char *text);
