#define _POSIX_C_SOURCE 200809L

#include "examples/common/guard.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>

#include "lib/log.h"

#define HOST_SIZE 256 /* a host name has up to 253 characters; a port may follow */
#define NAME_SIZE 64

/* ---- Header lines ---- */

/* Bytes of the request, not terminated. */
struct span {
	const char *start;
	size_t length;
};

struct header {
	struct span name, value;
};

static bool span_is(struct span span, const char *text)
{
	return span.length == strlen(text) && strncasecmp(span.start, text, span.length) == 0;
}

static bool is_blank(char c)
{
	return c == ' ' || c == '\t';
}

static struct span trimmed(struct span span)
{
	for (; span.length > 0 && is_blank(span.start[0]); span.start++)
		span.length--;
	while (span.length > 0 && is_blank(span.start[span.length - 1]))
		span.length--;
	return span;
}

/* The end of the header at `line`. A line that begins with white space continues the one before it. */
static const char *header_end(const char *line, const char *head_end)
{
	const char *next = line;
	do {
		next = (const char *)memchr(next, '\n', (size_t)(head_end - next));
		log_assert(next);
		next++;
	} while (next[-2] != '\r' || is_blank(*next));
	return next - 2;
}

/*
 * Reads the header at `*line`, and moves on to the next. Returns false at the blank line. The server has parsed these
 * lines, so each has its ":" and its end.
 */
static bool header_next(const struct httpd_conn *conn, const char **line, struct header *header)
{
	if (*line + 2 >= conn->head_end)
		return false;
	const char *end = header_end(*line, conn->head_end);
	const char *colon = (const char *)memchr(*line, ':', (size_t)(end - *line));
	log_assert(colon);
	header->name = (struct span){*line, (size_t)(colon - *line)};
	header->value = trimmed((struct span){colon + 1, (size_t)(end - colon - 1)});
	*line = end + 2;
	return true;
}

/* How many headers of this name there are, and the last one. */
static int header_find(const struct httpd_conn *conn, const char *name, struct header *found)
{
	const char *line = conn->head_start;
	struct header header;
	int count = 0;
	while (header_next(conn, &line, &header)) {
		if (!span_is(header.name, name))
			continue;
		*found = header;
		count++;
	}
	return count;
}

const char *header_get(struct httpd_conn *conn, const char *name)
{
	struct header header;
	char as_sent[NAME_SIZE];
	if (header_find(conn, name, &header) == 0)
		return NULL;
	snprintf(as_sent, sizeof as_sent, "%.*s", (int)header.name.length, header.name.start);
	return httpd_header_table_get(conn, as_sent);
}

/* ---- The length of a request ---- */

static bool is_plain(struct span text)
{
	for (size_t index = 0; index < text.length; index++) {
		unsigned char c = (unsigned char)text.start[index];
		if (c <= ' ' || c == 0x7f)
			return false;
	}
	return true;
}

static bool is_number(struct span text)
{
	for (size_t index = 0; index < text.length; index++)
		if (text.start[index] < '0' || text.start[index] > '9')
			return false;
	return true;
}

/* Whether the value has a "\r" or "\n" alone: some readers end a line there, the server does not. */
static bool has_lone_line_end(struct span value)
{
	for (size_t index = 0; index < value.length; index++) {
		const char *c = value.start + index;
		if (*c == '\n' || (*c == '\r' && c[1] != '\n'))
			return true;
		index += *c == '\r'; /* the line is continued */
	}
	return false;
}

/* Whether the header tells where the body ends, and the server ignores it or is more lenient than others. */
static bool is_unclear_length(const struct header *header)
{
	static const char known[] = "Content-Length";
	if (span_is(header->name, "Transfer-Encoding"))
		return true;
	if (!span_is(header->name, known))
		return false;
	return memcmp(header->name.start, known, sizeof known - 1) != 0 || !is_number(header->value);
}

bool guard_knows_length(const struct httpd_conn *conn)
{
	const char *line = conn->head_start;
	struct header header;
	if (!is_plain((struct span){conn->target, (size_t)conn->target_len}))
		return false;
	while (header_next(conn, &line, &header))
		if (!is_plain(header.name) || has_lone_line_end(header.value) || is_unclear_length(&header))
			return false;
	return true;
}

/* ---- Whom a request is meant for ---- */

/* Whether the connection was made to the address `host`. The daemons listen on IPv4 only. */
static bool is_local_address(const struct httpd_conn *conn, struct span host)
{
	struct sockaddr_in local = {0};
	socklen_t size = sizeof local;
	char address[INET_ADDRSTRLEN];

	if (getsockname(conn->stream.io.fd, (struct sockaddr *)&local, &size) || local.sin_family != AF_INET)
		return false;
	if (!inet_ntop(AF_INET, &local.sin_addr, address, sizeof address))
		return false;
	bool is_loopback = ntohl(local.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
	return span_is(host, address) || (is_loopback && span_is(host, "localhost"));
}

/* `authority` is a host, with or without a port. */
static bool is_our_name(const struct httpd_conn *conn, const char *authority, const char *name)
{
	struct span host = {authority, strcspn(authority, ":")};
	if (!http_check_host_port(authority))
		return false;
	return is_local_address(conn, host) || (name && span_is(host, name));
}

/* Copies the one "Host" of the request. An absolute target must name the same host. */
static bool read_host(const struct httpd_conn *conn, char host[HOST_SIZE])
{
	struct header header;
	struct span target_host = {conn->host, (size_t)conn->host_len};
	if (header_find(conn, "Host", &header) != 1 || header.value.length >= HOST_SIZE)
		return false;
	snprintf(host, HOST_SIZE, "%.*s", (int)header.value.length, header.value.start);
	if (strlen(host) != header.value.length)
		return false;
	return !conn->host || span_is(target_host, host);
}

/* Whether a page of `host`, or no page, made the request. The "Origin" of an unknown page is "null". */
static bool is_own_origin(const struct httpd_conn *conn, const char *host)
{
	struct header header;
	char over_http[HOST_SIZE + 8], over_https[HOST_SIZE + 8];
	int count = header_find(conn, "Origin", &header);
	if (count != 1)
		return count == 0;
	snprintf(over_http, sizeof over_http, "http://%s", host);
	snprintf(over_https, sizeof over_https, "https://%s", host);
	return span_is(header.value, over_http) || span_is(header.value, over_https);
}

bool guard_is_ours(const struct httpd_conn *conn, const char *name)
{
	char host[HOST_SIZE];
	return read_host(conn, host) && is_our_name(conn, host, name) && is_own_origin(conn, host);
}
