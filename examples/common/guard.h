/*
 * guard - which requests are refused, whatever they ask for: those of unclear length, and those of other sites' pages.
 *
 * The headers are read line by line, as they were sent: the server's table drops repeated ones, and tells spellings
 * apart.
 */
#pragma once
#include <stdbool.h>

#include "lib/httpd.h"

/*
 * Whether the server and every proxy agree where the request ends. They may not agree if
 * - a header that tells the length is one that the server ignores: "Transfer-Encoding", or "Content-Length" in another
 *   spelling of case;
 * - the length is not written in digits alone, as in "+5";
 * - a header's name, or the target, has white space or a control character, which may hide such a header from one side;
 * - a value has a "\r" or "\n" alone, at which others end a line.
 *
 * The body of such a request would be taken for the next request. Answer it with 400 and close the connection.
 */
bool guard_knows_length(const struct httpd_conn *conn);

/*
 * Whether the request is meant for us, and comes from one of our own pages or from no page. Ask before anything is
 * changed: any open page may have its browser send us requests. With a name of its own that leads to our address ("DNS
 * rebinding"), it may even read the answers.
 *
 * There must be one "Host": the address that the connection was made to, "localhost" for a loopback address, or `name`
 * unless it is null. Ports are not compared, since a proxy or a router may change them. An "Origin" must be "http://" or
 * "https://" and then the same as "Host". The host of an absolute target must be the same, too.
 */
bool guard_is_ours(const struct httpd_conn *conn, const char *name);

/*
 * The value of a header in any spelling of case, from the server's table; null if there is none. `name` has fewer than
 * 64 characters.
 */
const char *header_get(struct httpd_conn *conn, const char *name);
