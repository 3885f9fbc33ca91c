#include "examples/common/http.h"

#include <stdlib.h>
#include <string.h>

#include "examples/common/guard.h"

void put_text(struct buffer *buffer, const char *text)
{
	buffer_write(buffer, text, (int32_t)strlen(text));
}

/* To the server, HEAD is an unknown method like any other; the request line tells. */
static bool is_head(const struct httpd_conn *conn)
{
	static const char method[] = "HEAD ";
	return memcmp(conn->head_end - conn->head_len, method, sizeof method - 1) == 0;
}

/* Negative if it does not fit. */
static int32_t put_first_lines(struct httpd_conn *conn, int code)
{
	int32_t result =
		http_res_put_status_line(conn->res_head, conn->version, code, http_code_to_string(code));
	return result < 0 ? result : httpd_common_headers(conn);
}

/*
 * Formatting fails if the free space is too small, so formatted lines come first, into the 512 bytes that the head
 * starts with. The type is appended, as it may be a peer's text of any length.
 */
static int32_t put_head(struct httpd_conn *conn, int code, const char *content_type, bool keep)
{
	struct buffer *head = conn->res_head;
	int32_t result = put_first_lines(conn, code);

	if (result >= 0)
		result =
			http_res_put_header(head, "Content-Length", "%d", (int)buffer_length(conn->res_body));
	if (result < 0)
		return result;
	if (!keep)
		put_text(head, "Connection: close\r\n");
	put_text(head, "X-Content-Type-Options: nosniff\r\n"
		       "Content-Type: ");
	put_text(head, content_type);
	put_text(head, "\r\n\r\n");
	return 0;
}

/* The whole answer is in one buffer, so it takes one send. */
static void send_whole(struct httpd_conn *conn)
{
	stream_write(&conn->stream, conn->res_head->data, (uint32_t)conn->res_head->length);
	httpd_res_buffers_reset(conn);
}

/*
 * Sends the head, then the composed body. For HEAD it sends the head alone: a body would be taken for the next answer.
 * Negative, and nothing is sent, if the head could not be composed.
 */
static int32_t answer(struct httpd_conn *conn, int code, const char *content_type, bool keep)
{
	int32_t result = put_head(conn, code, content_type, keep);

	if (result < 0)
		return result;
	if (!is_head(conn))
		buffer_write(conn->res_head, conn->res_body->data, conn->res_body->length);
	send_whole(conn);
	return 0;
}

int32_t answer_body(struct httpd_conn *conn, const char *content_type)
{
	return answer(conn, 200, content_type, !conn->close_requested) < 0 ? answer_error(conn, 500) : 1;
}

/* Refuses, with the reason as text. */
static int32_t answer_why(struct httpd_conn *conn, int code, const char *reason, bool keep)
{
	httpd_res_buffers_reset(conn);
	put_text(conn->res_body, reason);
	return answer(conn, code, "text/plain; charset=utf-8", keep) == 0 && keep;
}

/* For HEAD: an error's head without a length, and no page. */
static int32_t answer_error_head(struct httpd_conn *conn, int code)
{
	int32_t result;

	httpd_res_buffers_reset(conn);
	result = put_first_lines(conn, code);
	if (result < 0)
		return result;
	put_text(conn->res_head, "\r\n");
	send_whole(conn);
	return 0;
}

int32_t answer_error(struct httpd_conn *conn, int code)
{
	int32_t result =
		is_head(conn) ? answer_error_head(conn, code) : httpd_fail(conn, conn->version, code);
	return result >= 0;
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
 * Paths are compared as they were sent: no path here has a character that needs an escape, and `decoded_path` has two
 * bytes after the path for each escape in it.
 */
static int path_is(const struct httpd_conn *conn, const char *path)
{
	if (conn->path_len == 0) /* "GET http://host HTTP/1.1" */
		return strcmp(path, "/") == 0;
	return (size_t)conn->path_len == strlen(path) && memcmp(conn->path, path, strlen(path)) == 0;
}

int32_t answer_by_route(
	struct httpd_conn *conn, const struct route *routes, size_t count, const char *host_name)
{
	const struct route *route = routes;

	if (!guard_knows_length(conn))
		return answer_why(conn, 400,
			"The length of a body is understood from \"Content-Length\" only, "
			"in this spelling of case, and a line ends with both of its characters.\n",
			false);
	if (is_head(conn)) /* also for the parameters, which the server looks up by the method */
		conn->method = HTTPD_METHOD_GET;
	while (route < routes + count && !path_is(conn, route->path))
		route++;
	if (route == routes + count)
		return answer_error(conn, 404);
	if (conn->method != route->method)
		return answer_error(conn, 405);
	if (route->method != HTTPD_METHOD_GET && !guard_is_ours(conn, host_name))
		return answer_why(conn, 403,
			"Only a request to this host, and from no page of another, "
			"may change anything here.\n",
			!conn->close_requested);
	return route->answer(conn);
}
