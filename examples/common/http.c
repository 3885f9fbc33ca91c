#include "examples/common/http.h"

#include <stdlib.h>
#include <string.h>

void put_text(struct buffer *buffer, const char *text)
{
	buffer_write(buffer, text, (int32_t)strlen(text));
}

int32_t answer_error(struct httpd_conn *conn, int code)
{
	httpd_fail(conn, conn->version, code);
	return conn->method != HTTPD_METHOD_OTHER;
}

/*
 * What formats into a buffer only fills the space that is free. It comes first, while the head has the
 * 512 bytes it starts with. The type, which may be a peer's text of any length, is appended.
 */
int32_t answer_body(struct httpd_conn *conn, const char *content_type)
{
	struct buffer *head = conn->res_head;
	struct buffer *body = conn->res_body;

	http_res_put_status_line(head, conn->version, 200, http_code_to_string(200));
	httpd_common_headers(conn);
	http_res_put_header(head, "Content-Length", "%d", (int)buffer_length(body));
	if (conn->close_requested)
		put_text(head, "Connection: close\r\n");
	put_text(head, "X-Content-Type-Options: nosniff\r\n"
		       "Content-Type: ");
	put_text(head, content_type);
	put_text(head, "\r\n\r\n");

	stream_write(&conn->stream, head->data, (uint32_t)head->length);
	stream_write(&conn->stream, body->data, (uint32_t)body->length);
	httpd_res_buffers_reset(conn);
	return 1;
}

int32_t answer_json(struct httpd_conn *conn, json_t *json)
{
	char *text = json_dumps(json, 0);
	json_decref(json);
	if (!text)
		return answer_error(conn, 500);
	put_text(conn->res_body, text);
	put_text(conn->res_body, "\n");
	free(text);
	return answer_body(conn, "application/json");
}

/*
 * Paths are compared as they were sent. `decoded_path` holds, by design of the decoder, two more
 * bytes behind the path for each escape in it; and no path here has a character that needs one.
 */
static int path_is(const struct httpd_conn *conn, const char *path)
{
	if (conn->path_len == 0) /* "GET http://host HTTP/1.1" */
		return strcmp(path, "/") == 0;
	return (size_t)conn->path_len == strlen(path) && memcmp(conn->path, path, strlen(path)) == 0;
}

int32_t answer_by_route(struct httpd_conn *conn, const struct route *routes, size_t count)
{
	const struct route *route = routes;

	while (route < routes + count && !path_is(conn, route->path))
		route++;
	if (route == routes + count)
		return answer_error(conn, 404);
	if (conn->method != route->method)
		return answer_error(conn, 405);
	return route->answer(conn);
}
