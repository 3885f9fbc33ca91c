/*
 * guard - requests that are refused whatever they ask for, because of who may have made them.
 *
 * The headers are read as they came, line by line: the server's table keeps one of those that repeat, and one of
 * each spelling.
 */
#pragma once
#include <stdbool.h>

#include "lib/httpd.h"

/*
 * Whether the request ends where its sender says. It does not if a header that says so is one that the server does
 * not look at: "Transfer-Encoding", or "Content-Length" in any other spelling of case. Nor is that sure if white
 * space or a control character in a header's name, or in the target, may have hidden such a header from a proxy, or
 * from us; if a "\r" or "\n" alone, at which others end a line, may have done so in a value; or if the length is
 * not written in digits alone, as "+5".
 *
 * The body of any other request would be taken for the next request. Answer it with 400 and close the connection.
 */
bool guard_knows_length(const struct httpd_conn *conn);

/*
 * Whether the request is meant for us, and comes from one of our own pages or from no page at all. To be asked before
 * anything is changed: any page that somebody has open may have their browser send us requests, and by a name of
 * its own that leads to our address ("DNS rebinding") it may even read the answers.
 *
 * There must be one "Host". It is the address at which the connection came in, "localhost" if that is a loopback
 * address, or `name`, if that is not null. Ports are not compared, as a proxy or a router may have changed them. If
 * there is an "Origin", it is "http://" or "https://" and the same as "Host"; and so is the host of an absolute
 * target.
 */
bool guard_is_ours(const struct httpd_conn *conn, const char *name);

/*
 * The value of a header in any spelling of case, from the server's table; null if there is none. `name` has less
 * than 64 characters.
 */
const char *header_get(struct httpd_conn *conn, const char *name);
