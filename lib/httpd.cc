// A connection is a stream whose receive buffer is parsed in place. Each parser state is one function, and all state
// is in the record: bytes that arrive one by one parse like bytes that arrive at once.
//
// Three rules keep a connection whole, whatever peers and handlers do:
//
// - Every connection ends in one place, finish(). A deferred answer or a running handler postpones the end. A graceful
//   end drains first: written bytes still go out. No request code runs after teardown().
// - Received bytes are bounded. Reading pauses when the receive buffer is full, and when the peer does not take its
//   answers. It resumes when the parser has made room.
// - The request's pointers point into the receive buffer, which moves when it grows. The stream calls `read` before and
//   after each growth, and each such call relocates the pointers.

#include "httpd.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/buffer.h"
#include "internal/decimal.h"
#include "internal/evloop.h"
#include "internal/htable.h"
#include "internal/intrusive.h"
#include "internal/invariant.h"
#include "internal/stream.h"
#include "log.h"

static constexpr int64_t IDLE_MS = 60000;        // in which the peer sends no byte
static constexpr int64_t DRAIN_STALL_MS = 60000; // in which the peer takes no byte of the last answer

static constexpr int32_t BUFFER_KEPT_MAX = 4096; // bytes of each buffer of an idle connection

static constexpr int32_t PROBES_MAX = 512; // steps to find a header's place in its table

static constexpr ptrdiff_t REQUEST_LINE_MIN = 14; // "GET / HTTP/1.0"
static constexpr int32_t ABSOLUTE_TARGET_MIN = 8; // "http://h"

// Unread bytes are discarded before the close: closing with unread bytes resets the connection, and the peer may
// lose the end of the last answer. Bytes may still arrive later. Waiting for the peer's last byte would keep the
// connection.
static constexpr ssize_t DISCARD_MAX = 1 << 20;

// A request's end is computed as a signed number.
static_assert(int64_t{2} * HTTPD_REQUEST_BYTES_LIMIT <= INT32_MAX);

static constexpr char BLANK_LINE[] = "\r\n\r\n";
static constexpr char LINE_END[] = "\r\n";

// How a connection ends. Of two requests to end it, the later in this order prevails.
enum class ending : uint8_t {
	none,
	graceful,  // after the written bytes are sent
	immediate, // now
};

// What a parser state decided.
enum class step {
	next, // run the current state
	wait, // for bytes, for the peer to take some, or for httpd_defer_complete
	gone, // the connection is torn down; do not touch it
};

// A connection: the public record first, then what the daemon does not see. There may be thousands, so it is small.
struct connection {
	httpd_conn pub;
	uintptr_t rx_base;    // the address of the bytes of `rx` that the request's pointers refer to
	int32_t searched_len; // bytes of the request, or of the next one, that contain no blank line
	ending postponed_end; // asked for while the handler ran, or while deferred
	bool in_handler : 1;
	bool is_draining : 1;
	bool is_paused : 1;        // reading is paused
	bool is_stalled : 1;       // the next request waits until the peer takes former answers
	bool has_been_stalled : 1; // bytes may have arrived together because reading was paused
	bool ends_read : 1;        // the next read makes no system call
	bool has_length : 1;       // the request has a "Content-Length"
	bool expects_more : 1;     // another send will most likely follow at once
	bool is_unpushed : 1;      // the kernel waits for that send
};

static connection *connection_of(httpd_conn *conn)
{
	return owner_of(conn, &connection::pub);
}

static connection *connection_of(stream *s)
{
	return connection_of(owner_of(s, &httpd_conn::stream));
}

static bool is_deferred(const connection *c)
{
	return c->pub.flags & HTTPD_DEFERRED;
}

// May be called twice: at an immediate end during the handler, and by finish().
static void leave_server(connection *c)
{
	if (c->pub.node.next)
		list_remove(&c->pub.node);
}

// ---- The end of a connection ----

static void close_stream(connection *c)
{
	stream *s = &c->pub.stream;
	int fd = s->io.fd;
	stream_cleanup(s);
	close(fd);
	s->io.fd = -1;
}

static void discard_unread(int fd)
{
	char bytes[4096];
	ssize_t length;
	for (ssize_t left = DISCARD_MAX; left > 0; left -= length) {
		length = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
		if (length <= 0)
			return;
	}
}

static void finish(connection *c)
{
	invariant(!is_deferred(c)); // or httpd_defer_complete would be called with a released record
	invariant(!c->in_handler);  // or the handler would return into one
	leave_server(c);
	evloop_timeout_cancel(&c->pub.idle_timer);
	if (!(c->pub.flags & HTTPD_FD_CLOSED)) {
		discard_unread(c->pub.stream.io.fd);
		close_stream(c);
	}
	buffer_free(c->pub.stream.rx); // not null if the descriptor was closed while deferred
	free(c);
}

static void on_drained(stream *s)
{
	finish(connection_of(s));
}

// A peer that sends no more may still take bytes. An error ends the draining.
static void on_drain_state(stream *s)
{
	if (s->state & STREAM_ERROR)
		finish(connection_of(s));
}

static void on_drain_stalled(evloop_timeout *timeout)
{
	finish(connection_of(owner_of(timeout, &httpd_conn::idle_timer)));
}

static void drain(connection *c)
{
	stream *s = &c->pub.stream;
	if (s->tx->length == 0) {
		finish(c);
		return;
	}
	invariant(!c->is_draining); // the end begins once
	c->is_draining = true;
	s->notify_read = nullptr;
	s->notify_state = on_drain_state;
	c->pub.idle_timer.cb = on_drain_stalled;
	evloop_timeout_set(&c->pub.idle_timer, DRAIN_STALL_MS);
	stream_disable_read(s);
	stream_flush_tx_async(s, on_drained);
}

static void release_request(connection *c)
{
	httpd_conn *conn = &c->pub;
	buffer_free(conn->res_head);
	buffer_free(conn->res_body);
	free(conn->decoded_path);
	htable_destroy(conn->headers);
	conn->res_head = conn->res_body = nullptr;
	conn->decoded_path = nullptr;
	conn->headers = nullptr;
	evloop_timeout_cancel(&conn->idle_timer);
}

static void postpone_end(connection *c, ending mode)
{
	if (c->postponed_end < mode)
		c->postponed_end = mode;
}

// Ends the connection. A deferred answer or a running handler postpones the end.
static void teardown(connection *c, ending mode)
{
	if (is_deferred(c)) {
		c->pub.flags |= HTTPD_CLOSE_PENDING;
		postpone_end(c, mode);
		return;
	}
	if (c->in_handler) {
		postpone_end(c, mode);
		if (mode == ending::immediate)
			leave_server(c); // the server's record may be released before the handler returns
		return;
	}
	release_request(c);
	stream_uncork(&c->pub.stream); // may enter STREAM_ERROR
	if (mode == ending::immediate || (c->pub.stream.state & STREAM_ERROR))
		finish(c);
	else
		drain(c);
}

static step end_gracefully(connection *c)
{
	teardown(c, ending::graceful);
	return step::gone;
}

static step refuse(connection *c, int version, int code)
{
	httpd_fail(&c->pub, version, code);
	return end_gracefully(c);
}

// ---- Reading and writing ----

static void pause_reading(connection *c)
{
	if (c->pub.stream.state & STREAM_READ_DISABLED) // already paused, or stopped for good by the daemon
		return;
	c->is_paused = true;
	stream_disable_read(&c->pub.stream);
}

static void resume_reading(connection *c)
{
	if (!c->is_paused)
		return;
	c->is_paused = false;
	stream_resume_read(&c->pub.stream);
}

static void move_pointer(const char **pointer, uintptr_t from, const char *to)
{
	if (*pointer)
		*pointer = to + (reinterpret_cast<uintptr_t>(*pointer) - from);
}

// Adjusts the request's pointers after the receive buffer has moved.
static void relocate_pointers(connection *c)
{
	httpd_conn *conn = &c->pub;
	const char *data = conn->stream.rx->data;
	uintptr_t base = reinterpret_cast<uintptr_t>(data);
	if (base == c->rx_base)
		return;
	const char **const pointers[] = {&conn->target, &conn->host, &conn->path, &conn->query,
		&conn->head_start, &conn->head_end, &conn->body};
	for (const char **pointer : pointers)
		move_pointer(pointer, c->rx_base, data);
	c->rx_base = base;
}

static int32_t max_of(int32_t a, int32_t b)
{
	return a > b ? a : b;
}

// The bytes that the receive buffer may hold at the end of this read step. The parser refuses a request if too many
// bytes have arrived together with it. After a stall, many arrive together only because reading was paused. So from
// then on each read step stops just below the parser's limit.
static int32_t rx_bound(const connection *c)
{
	const httpd_conn *conn = &c->pub;
	int32_t step_bound = HTTPD_REQUEST_BYTES_LIMIT - 1;
	if (conn->state == HTTPD_STATE_BODY)
		step_bound = max_of(step_bound, conn->head_len + static_cast<int32_t>(conn->content_length));
	return c->has_been_stalled && conn->stream.rx->length < step_bound ? step_bound : HTTPD_RX_BYTES_MAX;
}

// A short read has emptied the descriptor. After a stall, a read up to the bound gives the parser its turn. In both
// cases the next read ends the read step without a system call.
static int32_t read_within(connection *c, void *bytes, uint32_t count)
{
	stream *s = &c->pub.stream;
	int32_t bound = rx_bound(c);
	invariant(s->rx->length <= bound); // or `space` would wrap, and the peer could send without bound
	uint32_t space = static_cast<uint32_t>(bound - s->rx->length);
	if (space == 0) {
		pause_reading(c);
		return -EAGAIN;
	}
	uint32_t wanted = count < space ? count : space;
	int32_t length = stream_read_fd(s, bytes, wanted);
	bool is_emptied = length < static_cast<int32_t>(wanted);
	c->ends_read = length > 0 && (is_emptied || (c->has_been_stalled && wanted == space));
	return length;
}

// The stream's `read`.
static int32_t read_bounded(stream *s, void *bytes, uint32_t count)
{
	connection *c = connection_of(s);
	relocate_pointers(c);
	if (s->state & STREAM_EOF) // the loop reports a hang-up, or an event fetched before the end of file
		return stream_has_hung_up(s) ? -1 : -EAGAIN;
	if (c->ends_read) {
		c->ends_read = false;
		return -EAGAIN;
	}
	return read_within(c, bytes, count);
}

static void note_progress(connection *c)
{
	if (c->is_draining)
		evloop_timeout_set(&c->pub.idle_timer, DRAIN_STALL_MS);
	else if (c->is_stalled)
		stream_notify_read(&c->pub.stream);
}

// The stream's `write`. A peer that has gone is an error here; write() would send SIGPIPE to the daemon.
static int32_t write_without_signal(stream *s, const void *bytes, uint32_t count)
{
	connection *c = connection_of(s);
	ssize_t length;
	do
		length = send(s->io.fd, bytes, count, MSG_NOSIGNAL | (c->expects_more ? MSG_MORE : 0));
	while (length < 0 && errno == EINTR);
	if (length < 0)
		return errno == EAGAIN ? 0 : -1;
	if (length > 0) {
		c->is_unpushed = c->expects_more;
		note_progress(c);
	}
	return static_cast<int32_t>(length);
}

// Hands the corked answers to the kernel, whatever the handler does next. They leave with the handler's answer. If that
// takes long, the kernel sends them after its timeout for acknowledgements.
static void flush_corked(connection *c)
{
	c->expects_more = true;
	stream_uncork(&c->pub.stream);
	c->expects_more = false;
}

static void set_no_delay(int fd)
{
	int on = 1;
	setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// If no answer followed, tells the kernel not to wait.
static void push_flushed(connection *c)
{
	if (c->is_unpushed)
		set_no_delay(c->pub.stream.io.fd);
	c->is_unpushed = false;
}

// ---- Text ----

// Text inside the receive buffer, not terminated. Literals are compared without their terminating zero.
struct span {
	const char *pos;
	const char *end;

	size_t length() const { return static_cast<size_t>(end - pos); }
	bool is_empty() const { return pos == end; }
	template <size_t n>
	bool starts_with(const char (&text)[n]) const
	{
		return length() >= n - 1 && memcmp(pos, text, n - 1) == 0;
	}
	template <size_t n>
	bool is(const char (&text)[n]) const
	{
		return length() == n - 1 && starts_with(text);
	}
	template <size_t n>
	const char *find(const char (&text)[n]) const
	{
		for (span rest = *this; const char *place = rest.find(text[0]); rest.pos = place + 1)
			if (span{place, end}.starts_with(text))
				return place;
		return nullptr;
	}
	const char *find(char c) const { return static_cast<const char *>(memchr(pos, c, length())); }
	void skip_spaces()
	{
		while (pos < end && *pos == ' ')
			pos++;
	}
	void skip_line_ends()
	{
		while (pos < end && (*pos == '\r' || *pos == '\n'))
			pos++;
	}
};

static span received(const httpd_conn *conn)
{
	const buffer *rx = conn->stream.rx;
	return {rx->data, rx->data + rx->length};
}

static void store_span(span text, const char **pointer, int32_t *length)
{
	*pointer = text.pos;
	*length = static_cast<int32_t>(text.length());
}

// The six characters that count as white space in a header's value: \t \n \v \f \r and the space.
static bool is_white(char c)
{
	return c == ' ' || (c >= '\t' && c <= '\r');
}

// ---- Decoding of URLs ----

static unsigned digit_value(char digit)
{
	unsigned value = static_cast<unsigned char>(digit);
	if (digit >= '0' && digit <= '9')
		return value - '0';
	if (digit >= 'A' && digit <= 'Z')
		value += 'a' - 'A';
	return value - ('a' - 10); // compatibility, unchecked digits
}

static char from_digits(char high, char low)
{
	return static_cast<char>(digit_value(high) * 16 | digit_value(low));
}

// Input that may be read at any distance: zeros follow its end.
class padded_reader
{
	span rest_;

public:
	explicit padded_reader(span text) : rest_(text) {}
	char at(size_t offset) const { return offset < rest_.length() ? rest_.pos[offset] : '\0'; }
	void skip(size_t count) { rest_.pos += count < rest_.length() ? count : rest_.length(); }
};

// Input whose caller owns the bytes after it.
class unbounded_reader
{
	const char *pos_;

public:
	explicit unbounded_reader(const char *pos) : pos_(pos) {}
	char at(size_t offset) const { return pos_[offset]; }
	void skip(size_t count) { pos_ += count; }
};

// An escape takes three bytes and counts as one of `length`: compatibility, escapes read on
template <typename reader>
static void decode_into(char *out, reader in, int32_t length) // `out` has room for a terminating zero
{
	for (int32_t left = length; left > 0; left--) {
		char c = in.at(0);
		if (c != '%') {
			*out++ = c == '+' ? ' ' : c;
			in.skip(1);
		} else if (left >= 3 && in.at(1) && in.at(2)) {
			*out++ = from_digits(in.at(1), in.at(2));
			in.skip(3);
		} else {
			in.skip(1);
		}
	}
	*out = '\0';
}

template <typename reader>
static char *decode_from(reader in, int32_t length)
{
	size_t size = static_cast<size_t>(length) + 1;
	char *text =
		static_cast<char *>(memset(xmalloc(size), 0, size)); // malloc uses its cache, calloc does not
	decode_into(text, in, length);
	return text;
}

// Decodes `length` bytes of `text`, which ends with the last byte that may be read.
static char *decode_url(span text, int32_t length)
{
	return decode_from(padded_reader{text}, length);
}

// ---- Parsing ----

// Gives back the memory of a large request or answer.
static void shrink(buffer **b)
{
	if ((*b)->length > 0 || (*b)->size <= BUFFER_KEPT_MAX)
		return;
	buffer_free(*b);
	*b = buffer_new();
}

// IDLE: skips stray line ends. No request begins while too many bytes of former answers wait for the peer.
static step state_idle(connection *c)
{
	httpd_conn *conn = &c->pub;
	c->is_stalled = conn->stream.tx->length >= HTTPD_TX_BYTES_STALL;
	if (c->is_stalled) {
		pause_reading(c);
		c->has_been_stalled = true;
		return step::wait;
	}
	span rest = received(conn);
	const char *start = rest.pos;
	rest.skip_line_ends();
	buffer_consume(conn->stream.rx, static_cast<int32_t>(rest.pos - start));
	if (rest.is_empty()) {
		shrink(&conn->stream.rx);
		shrink(&conn->stream.tx);
		return step::wait;
	}
	conn->state = HTTPD_STATE_REQUEST_LINE;
	return step::next;
}

// The blank line of the request at the start of `text`. Bytes searched before are skipped.
static const char *find_blank_line(connection *c, span text)
{
	span unsearched = {text.pos + c->searched_len, text.end};
	invariant(unsearched.pos <= unsearched.end); // `rx` still has the bytes searched before
	const char *blank_line = unsearched.find(BLANK_LINE);
	int32_t overlap = sizeof BLANK_LINE - 2; // all its bytes but the last may have arrived
	int32_t length = static_cast<int32_t>((blank_line ? blank_line + overlap : text.end) - text.pos);
	c->searched_len = length > overlap ? length - overlap : 0;
	return blank_line;
}

// True if the whole head has arrived.
static bool find_head(connection *c)
{
	httpd_conn *conn = &c->pub;
	span text = received(conn);
	const char *blank_line = find_blank_line(c, text);
	if (!blank_line)
		return false;
	conn->head_end = blank_line + sizeof BLANK_LINE - 1;
	conn->head_len = static_cast<int32_t>(conn->head_end - text.pos);
	return true;
}

// Each parse_ function moves `rest` past the text that it has parsed. False refuses the request.

static bool parse_method(httpd_conn *conn, span *rest, const char *line_end)
{
	if (rest->starts_with("GET ")) {
		conn->method = HTTPD_METHOD_GET;
		rest->pos += strlen("GET ");
	} else if (rest->starts_with("POST ")) {
		conn->method = HTTPD_METHOD_POST;
		rest->pos += strlen("POST ");
	} else {
		const char *space = span{rest->pos, line_end}.find(' ');
		if (!space)
			return false;
		conn->method = HTTPD_METHOD_OTHER;
		rest->pos = space;
	}
	return true;
}

static bool skip_scheme(span *target)
{
	if (target->length() < ABSOLUTE_TARGET_MIN)
		return false;
	if (target->starts_with("http://")) {
		target->pos += strlen("http://");
		return true;
	}
	if (target->length() > ABSOLUTE_TARGET_MIN && target->starts_with("https://")) {
		target->pos += strlen("https://");
		return true;
	}
	return false;
}

// Takes scheme and host off an absolute target and leaves its path, which may be empty.
static bool parse_authority(httpd_conn *conn, span *target)
{
	if (!skip_scheme(target))
		return false;
	const char *slash = target->find('/');
	span host = {target->pos, slash ? slash : target->end};
	if (!host.is_empty())
		store_span(host, &conn->host, &conn->host_len);
	target->pos = host.end;
	return true;
}

static void parse_path(httpd_conn *conn, span path)
{
	const char *query = path.find('?');
	if (query) {
		store_span({query, path.end}, &conn->query, &conn->query_len); // compatibility, query mark
		path.end = query;
	}
	store_span(path, &conn->path, &conn->path_len);
}

// The target ends at a space, which may be on a later line.
static bool parse_target(httpd_conn *conn, span *rest)
{
	rest->skip_spaces();
	const char *space = rest->find(' ');
	if (!space)
		return false;
	span target = {rest->pos, space};
	rest->pos = space;
	store_span(target, &conn->target, &conn->target_len);
	if (*target.pos != '/' && !parse_authority(conn, &target))
		return false;
	if (!target.is_empty())
		parse_path(conn, target);
	return true;
}

static bool parse_version(httpd_conn *conn, span *rest)
{
	rest->skip_spaces();
	if (rest->starts_with("HTTP/1.1\r\n"))
		conn->version = 1;
	else if (rest->starts_with("HTTP/1.0\r\n"))
		conn->version = 0;
	else
		return false;
	rest->pos += strlen("HTTP/1.x\r\n");
	return true;
}

static bool parse_request_line(httpd_conn *conn)
{
	span rest = {conn->stream.rx->data, conn->head_end};
	const char *line_end = rest.find(LINE_END);
	if (line_end - rest.pos < REQUEST_LINE_MIN)
		return false;
	if (!parse_method(conn, &rest, line_end) || !parse_target(conn, &rest) || !parse_version(conn, &rest))
		return false;
	conn->head_start = rest.pos;
	return true;
}

// Each escape makes the decoder read two bytes after the path. After the last received byte it reads zeros.
static char *decode_path(const httpd_conn *conn)
{
	if (conn->path_len == 0)
		return http_alloc_url_decode("/", 1);
	return decode_url({conn->path, received(conn).end}, conn->path_len);
}

// REQUEST_LINE: waits for the whole head, then parses its first line.
static step state_request_line(connection *c)
{
	httpd_conn *conn = &c->pub;
	if (conn->stream.rx->length >= HTTPD_REQUEST_BYTES_LIMIT)
		return refuse(c, 0, 400);
	if (!find_head(c))
		return step::wait;
	if (!parse_request_line(conn))
		return refuse(c, 0, 400);
	conn->decoded_path = decode_path(conn);
	conn->state = HTTPD_STATE_HEADERS;
	return step::next;
}

// The end of the header at the start of `rest`: the first line end without white space after it.
static const char *find_header_end(span rest)
{
	while (const char *line_end = rest.find(LINE_END)) {
		bool is_folded = rest.end - line_end >= 3 && (line_end[2] == ' ' || line_end[2] == '\t');
		if (!is_folded)
			return line_end;
		rest.pos = line_end + 2;
	}
	return nullptr;
}

static span trimmed(span text)
{
	while (!text.is_empty() && is_white(*text.pos))
		text.pos++;
	while (!text.is_empty() && is_white(text.end[-1]))
		text.end--;
	return text;
}

// A copy in which each run of white space, folds included, is one space. Null if memory is exhausted.
static char *normalised_value(span value)
{
	char *copy = static_cast<char *>(malloc(value.length() + 1));
	if (!copy)
		return nullptr;
	char *out = copy;
	for (const char *in = value.pos; in < value.end; in++) {
		if (!is_white(*in))
			*out++ = *in;
		else if (!is_white(in[-1])) // in[-1] exists: the first character is not white space
			*out++ = ' ';
	}
	*out = '\0';
	return copy;
}

// Without memory for its name a header is dropped; without memory for its value it reads as absent. Too many
// collisions are an attack: anybody can compute the hash, and the table is never full enough for so many by chance.
// The result is 0 or the status code to refuse the request with.
static int store_header(httpd_conn *conn, span name, span value)
{
	char *name_copy = strndup(name.pos, name.length());
	if (!name_copy || !conn->headers) {
		free(name_copy);
		return 0;
	}
	if (htable_has_too_many_collisions(conn->headers, name_copy, PROBES_MAX)) {
		free(name_copy);
		return 400;
	}
	htable_insert(conn->headers, name_copy, normalised_value(value));
	return 0;
}

// Accepts what strtoul accepts, signs included, but nothing after the number. The result is 0 or a status code.
static int parse_content_length(httpd_conn *conn, span value)
{
	connection *c = connection_of(conn);
	if (value.is_empty())
		return 400;
	char *digits = strndup(value.pos, value.length());
	if (!digits)
		return 500;
	char *end;
	unsigned long length = strtoul(digits, &end, 10);
	bool is_whole = static_cast<size_t>(end - digits) == value.length();
	free(digits);
	if (!is_whole || length >= HTTPD_REQUEST_BYTES_LIMIT)
		return 400;
	if (c->has_length && length != conn->content_length)
		return 400;
	c->has_length = true;
	conn->content_length = static_cast<uint32_t>(length);
	return 0;
}

static int parse_connection(httpd_conn *conn, span value)
{
	if (value.is_empty())
		return 400;
	if (value.is("close"))
		conn->close_requested = 1;
	return 0;
}

// Parses and stores one header. The result is 0 or the status code to refuse the request with.
static int parse_header(httpd_conn *conn, span line)
{
	const char *colon = line.find(':');
	if (!colon || colon + 1 == line.end)
		return 400;
	span name = {line.pos, colon};
	span value = trimmed({colon + 1, line.end});
	if (name.find('\0')) // the table would keep only the part before it
		return 400;
	// "content-length" is a header like any other: compatibility, header spelling
	if (name.is("Content-Length"))
		return parse_content_length(conn, value);
	if (name.is("Connection"))
		return parse_connection(conn, value);
	return store_header(conn, name, value);
}

// HEADERS: parses all header lines. They have arrived.
static step state_headers(connection *c)
{
	httpd_conn *conn = &c->pub;
	invariant(conn->head_len <= conn->stream.rx->length); // the header lines lie in `rx`
	span rest = {conn->head_start, conn->head_end};
	while (!rest.is(LINE_END)) {
		const char *line_end = find_header_end(rest);
		int code = line_end ? parse_header(conn, {rest.pos, line_end}) : 400;
		if (code != 0)
			return refuse(c, conn->version, code);
		rest.pos = line_end + strlen(LINE_END);
	}
	conn->state = HTTPD_STATE_BODY;
	return step::next;
}

// BODY: waits for the whole body, whatever the method.
static step state_body(connection *c)
{
	httpd_conn *conn = &c->pub;
	invariant(conn->content_length < HTTPD_REQUEST_BYTES_LIMIT); // so the sum below does not overflow
	const buffer *rx = conn->stream.rx;
	int32_t body_len = static_cast<int32_t>(conn->content_length);
	if (rx->length < conn->head_len + body_len)
		return step::wait;
	conn->body = rx->data + conn->head_len;
	conn->body_len = body_len;
	conn->state = HTTPD_STATE_DISPATCH;
	return step::next;
}

static bool is_last_request(const httpd_conn *conn)
{
	return conn->close_requested || conn->version == 0;
}

// True if the whole head of the next request has arrived as well.
static bool find_next_head(connection *c)
{
	span rest = received(&c->pub);
	rest.pos = c->pub.body + c->pub.body_len;
	invariant(rest.pos <= rest.end); // the body lies in `rx`
	rest.skip_line_ends();
	c->searched_len = 0;
	return find_blank_line(c, rest);
}

// An answer may wait for the answer to the next request, which has arrived. Requests that change the device have
// another method than GET. Their handler may end the process, so their answers never wait.
static bool may_cork(connection *c)
{
	return find_next_head(c) && c->pub.method == HTTPD_METHOD_GET && !is_last_request(&c->pub);
}

// The handler may stop reading for good, even while reading is paused.
static int32_t call_handler(connection *c)
{
	bool was_paused = c->is_paused;
	resume_reading(c);
	c->in_handler = true;
	int32_t result = c->pub.ctx->handler(&c->pub);
	c->in_handler = false;
	if (was_paused)
		pause_reading(c);
	return result;
}

// DISPATCH: calls the handler. It may end the connection, or defer its answer, before it returns.
static step state_dispatch(connection *c)
{
	httpd_conn *conn = &c->pub;
	if (!conn->ctx->handler)
		return end_gracefully(c);
	if (may_cork(c))
		stream_cork(&conn->stream);
	else
		flush_corked(c);
	int32_t result = call_handler(c);
	push_flushed(c);
	if (is_deferred(c))
		return step::wait;
	if (c->postponed_end != ending::none) {
		teardown(c, c->postponed_end);
		return step::gone;
	}
	if (result == 0)
		return end_gracefully(c);
	conn->state = HTTPD_STATE_DONE;
	return step::next;
}

static void forget_request(httpd_conn *conn)
{
	static constexpr size_t FIRST = offsetof(httpd_conn, version);
	static constexpr size_t END = offsetof(httpd_conn, arg);
	memset(reinterpret_cast<char *>(conn) + FIRST, 0, END - FIRST);
	free(conn->decoded_path);
	conn->decoded_path = nullptr;
	htable_remove_all(conn->headers);
	conn->content_length = 0;
	connection_of(conn)->has_length = false;
}

// DONE: closes, or makes room for the next request, which may have arrived.
static step state_done(connection *c)
{
	httpd_conn *conn = &c->pub;
	invariant(conn->state == HTTPD_STATE_DONE); // the only state left
	if (is_last_request(conn))
		return end_gracefully(c);
	buffer *rx = conn->stream.rx;
	buffer_consume(rx, conn->head_len + static_cast<int32_t>(conn->content_length));
	forget_request(conn);
	conn->state = HTTPD_STATE_IDLE;
	return step::next;
}

static step run_state(connection *c)
{
	switch (c->pub.state) {
	case HTTPD_STATE_IDLE:
		return state_idle(c);
	case HTTPD_STATE_REQUEST_LINE:
		return state_request_line(c);
	case HTTPD_STATE_HEADERS:
		return state_headers(c);
	case HTTPD_STATE_BODY:
		return state_body(c);
	case HTTPD_STATE_DISPATCH:
		return state_dispatch(c);
	default:
		return state_done(c);
	}
}

static step run_parser(connection *c)
{
	step result;
	do
		result = run_state(c);
	while (result == step::next);
	return result;
}

// Called when the parser waits for more bytes. After end of file none will come; else `rx` has room again.
static void end_or_resume_reading(connection *c)
{
	if (is_deferred(c) || c->is_stalled)
		return;
	if (c->pub.stream.state & STREAM_EOF)
		teardown(c, ending::graceful);
	else
		resume_reading(c);
}

// ---- A connection's callbacks ----

static void on_readable(stream *s)
{
	connection *c = connection_of(s);
	invariant(!c->is_draining); // no request code runs after the end has begun
	evloop_timeout_set(&c->pub.idle_timer, IDLE_MS);
	if (is_deferred(c) || c->in_handler)
		return;
	relocate_pointers(c);
	if (run_parser(c) != step::wait)
		return;
	stream_uncork(s);
	end_or_resume_reading(c);
}

// The peer of a deferred connection has gone, or sends no more. Pending bytes are still sent. Then the connection
// leaves the loop, which would report the hang-up on every pass, and waits for its httpd_defer_complete.
static void on_state_while_deferred(connection *c)
{
	stream *s = &c->pub.stream;
	c->pub.flags |= HTTPD_CLOSE_PENDING;
	if (s->tx->length > 0 && !(s->state & STREAM_ERROR))
		return;
	evloop_io_delete(&s->io);
	evloop_forget(&s->io);
}

// A peer that has sent its last byte still gets all written bytes, and the answers to stalled requests.
static void on_state(stream *s)
{
	connection *c = connection_of(s);
	if (is_deferred(c))
		on_state_while_deferred(c);
	else if (s->state & STREAM_ERROR)
		teardown(c, ending::immediate);
	else if (!c->is_stalled)
		teardown(c, ending::graceful);
}

static void on_idle(evloop_timeout *timeout)
{
	httpd_conn *conn = owner_of(timeout, &httpd_conn::idle_timer);
	connection *c = connection_of(conn);
	if (!is_deferred(c)) {
		teardown(c, ending::graceful);
		return;
	}
	buffer *rx = conn->stream.rx; // the request still points into it
	conn->stream.rx = nullptr;
	close_stream(c);
	conn->stream.rx = rx;
	conn->flags |= HTTPD_CLOSE_PENDING | HTTPD_FD_CLOSED;
}

// ---- The server ----

static uint32_t hash_name(const void *name)
{
	return fnv_32_str(static_cast<const char *>(name), 0); // compatibility, zero basis
}

static int equal_names(const void *stored, const void *name)
{
	return strcmp(static_cast<const char *>(stored), static_cast<const char *>(name)) == 0;
}

void httpd_ctx_init(struct httpd_ctx *ctx, httpd_handler handler)
{
	ctx->handler = handler;
	ctx->connections.next = ctx->connections.prev = &ctx->connections;
}

void httpd_ctx_cleanup(struct httpd_ctx *ctx)
{
	httpd_link *next;
	for (httpd_link *node = ctx->connections.next; node != &ctx->connections; node = next) {
		next = node->next;
		connection *c = connection_of(owner_of(node, &httpd_conn::node));
		if (is_deferred(c)) // compatibility, deferred at the end
			_log(LOG_CRIT, "BUG: deferred connections around\n");
		teardown(c, ending::immediate);
	}
}

void httpd_accept(int fd, uint32_t arg, void *ctx)
{
	connection *c = static_cast<connection *>(calloc(1, sizeof *c));
	if (!c) {
		close(fd);
		return;
	}
	httpd_conn *conn = &c->pub;
	conn->stream.read = read_bounded;
	conn->stream.write = write_without_signal;
	conn->stream.notify_read = on_readable;
	conn->stream.notify_state = on_state;
	if (stream_init(&conn->stream, fd) < 0) {
		close(fd);
		free(c);
		return;
	}
	// Else an answer in several writes would wait for the peer's delayed acknowledgements. It fails where the
	// connection is not TCP, and there it is not needed.
	set_no_delay(fd);
	conn->res_head = buffer_new();
	conn->res_body = buffer_new();
	conn->idle_timer.cb = on_idle;
	evloop_timeout_set(&conn->idle_timer, IDLE_MS);
	conn->headers = htable_new_full(hash_name, equal_names, free, free);
	conn->ctx = static_cast<httpd_ctx *>(ctx);
	conn->arg = arg;
	list_insert_before(conn->ctx->connections.next, &conn->node);
}

void httpd_defer(struct httpd_conn *conn)
{
	conn->flags |= HTTPD_DEFERRED;
	stream_uncork(&conn->stream);
}

// Immediate if that was requested meanwhile, or if the peer cannot be reached any more.
static ending ending_of_deferred(const connection *c)
{
	bool is_reachable = !(c->pub.flags & HTTPD_FD_CLOSED) && !(c->pub.stream.state & STREAM_ERROR);
	return is_reachable && c->postponed_end != ending::immediate ? ending::graceful : ending::immediate;
}

void httpd_defer_complete(struct httpd_conn *conn, int keep)
{
	connection *c = connection_of(conn);
	if (!is_deferred(c))
		return;
	conn->flags &= static_cast<uint8_t>(~HTTPD_DEFERRED);
	if ((conn->flags & HTTPD_CLOSE_PENDING) || c->postponed_end != ending::none) {
		teardown(c, ending_of_deferred(c));
	} else if (keep) {
		conn->state = HTTPD_STATE_DONE;
		stream_notify_read(&conn->stream);
	} else {
		teardown(c, ending::graceful);
	}
}

void httpd_res_buffers_reset(struct httpd_conn *conn)
{
	if (conn->res_head)
		buffer_reset(conn->res_head);
	if (conn->res_body)
		buffer_reset(conn->res_body);
}

const char *httpd_header_table_get(struct httpd_conn *conn, const char *name)
{
	return static_cast<const char *>(htable_lookup(conn->headers, name));
}

// ---- Answers ----

const char *http_code_to_string(int code)
{
	switch (code) {
	case 200:
		return "OK";
	case 400:
		return "Bad Request";
	case 404:
		return "Not found"; // compatibility, Not found
	case 405:
		return "Method Not Allowed";
	case 406:
		return "Not Acceptable";
	case 417:
		return "Expectation Failed";
	case 501:
		return "Not Implemented";
	default:
		return "";
	}
}

// A literal, without its terminating zero.
template <size_t n>
static int32_t put_literal(buffer *b, const char (&text)[n])
{
	return buffer_append(b, text, n - 1);
}

static int32_t put_text(buffer *b, const char *text)
{
	return buffer_append(b, text, static_cast<int32_t>(strlen(text)));
}

static char *put_bytes(char *to, const char *bytes, size_t count)
{
	memcpy(to, bytes, count);
	return to + count;
}

// Every answer has one, and formatting it would cost several times as much.
int32_t http_res_put_status_line(struct buffer *buffer, int version, int code, const char *reason)
{
	static constexpr size_t PROTOCOL_LENGTH = 9;
	const char *protocol = version ? "HTTP/1.1 " : "HTTP/1.0 ";
	decimal number(code);
	size_t reason_length = strlen(reason);
	if (!buffer)
		return -1;
	char *to = buffer_claim_text(
		buffer, static_cast<int32_t>(PROTOCOL_LENGTH + number.length() + 1 + reason_length + 2));
	if (!to)
		return -ENOMEM;
	to = put_bytes(to, protocol, PROTOCOL_LENGTH);
	to = put_bytes(to, number.text(), number.length());
	*to++ = ' ';
	to = put_bytes(to, reason, reason_length);
	put_bytes(to, LINE_END, sizeof LINE_END);
	return 0;
}

int32_t http_res_put_header(struct buffer *buffer, const char *name, const char *format, ...)
{
	int32_t result = put_text(buffer, name);
	if (result >= 0)
		result = put_literal(buffer, ": ");
	if (result >= 0) {
		va_list arguments;
		va_start(arguments, format);
		result = buffer_vprintf(buffer, format, arguments);
		va_end(arguments);
	}
	if (result >= 0)
		result = put_literal(buffer, LINE_END);
	return result < 0 ? result : 0;
}

// http_res_put_header of two literals.
template <size_t n, size_t m>
static int32_t put_literal_header(buffer *b, const char (&name)[n], const char (&value)[m])
{
	int32_t result = put_literal(b, name);
	if (result >= 0)
		result = put_literal(b, ": ");
	if (result >= 0)
		result = buffer_append_text(b, value, m - 1);
	if (result >= 0)
		result = put_literal(b, LINE_END);
	return result;
}

int32_t httpd_common_headers(struct httpd_conn *conn)
{
	buffer *head = conn->res_head;
	bool is_done = put_literal_header(head, "Server", "kvhttpd") >= 0 &&
		       put_literal_header(head, "Pragma", "no-cache") >= 0 &&
		       put_literal_header(head, "Expires", "0") >= 0;
	return is_done ? 0 : -1;
}

// Writes head and body at once. Both buffers stay as they were composed.
static bool send_composed(httpd_conn *conn)
{
	buffer *whole = conn->res_head;
	int32_t head_length = whole->length;
	bool is_sent = buffer_append(whole, conn->res_body->data, conn->res_body->length) >= 0 &&
		       stream_write(&conn->stream, whole->data, static_cast<uint32_t>(whole->length)) ==
			       whole->length;
	whole->length = head_length;
	return is_sent;
}

int32_t httpd_fail(struct httpd_conn *conn, int version, int code)
{
	const char *reason = http_code_to_string(code);
	httpd_res_buffers_reset(conn);
	int32_t result = http_res_put_status_line(conn->res_head, version, code, reason);
	if (result != 0)
		return result;
	result = httpd_common_headers(conn);
	if (result < 0)
		return result;
	result = put_literal_header(conn->res_head, "Content-Type", "text/html");
	if (result < 0)
		return result;
	int32_t body_len = buffer_printf(
		conn->res_body, "<html><body><h1>%d - %s</h1><p>%s</p></body></html>", code, reason, "Error");
	if (body_len < 0)
		return body_len;
	result = http_res_put_header(conn->res_head, "Content-Length", "%d", body_len);
	if (result < 0)
		return result;
	result = put_literal(conn->res_head, LINE_END);
	if (result < 0)
		return result;
	if (!send_composed(conn))
		return -ENOMEM;
	httpd_res_buffers_reset(conn);
	return result; // compatibility, result 2
}

// ---- URL coding ----

char *http_alloc_url_decode(const char *bytes, int32_t length)
{
	if (!bytes || length < 0)
		return nullptr;
	return decode_from(unbounded_reader{bytes}, length);
}

static bool is_unreserved(char c)
{
	return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
	       c == '.' || c == '_' || c == '~';
}

char *http_alloc_url_encode(const char *bytes, int32_t length)
{
	static constexpr char DIGITS[] = "0123456789abcdef";
	size_t size;
	if (!bytes || length < 0)
		return nullptr;
	if (__builtin_mul_overflow(static_cast<size_t>(length), 3, &size) ||
		__builtin_add_overflow(size, 1, &size))
		out_of_memory();
	char *text = static_cast<char *>(xzalloc(size));
	char *out = text;
	for (const char *in = bytes; in < bytes + length; in++) {
		unsigned char byte = static_cast<unsigned char>(*in);
		if (is_unreserved(*in)) {
			*out++ = *in;
		} else if (*in == ' ') {
			*out++ = '+';
		} else {
			*out++ = '%';
			*out++ = DIGITS[byte >> 4];
			*out++ = DIGITS[byte & 15];
		}
	}
	return text;
}

// The decoded value of one "name=value" if `name` is equal, else null. `piece` is terminated; `end` is the end of the
// text around it.
static char *match_parameter(char *piece, const char *end, const char *name)
{
	char *value = strchr(piece, '=');
	if (value)
		*value++ = '\0';
	// In place: the decoder never writes past the byte that it reads.
	decode_into(piece, padded_reader{{piece, end}}, static_cast<int32_t>(strlen(piece)));
	if (strcasecmp(piece, name) != 0)
		return nullptr;
	if (!value)
		return http_alloc_url_decode("", 0);
	return decode_url({value, end}, static_cast<int32_t>(strlen(value)));
}

static char *find_parameter(char *text, const char *name)
{
	const char *end = text + strlen(text);
	char *rest = nullptr;
	for (char *piece = strtok_r(text, "&", &rest); piece; piece = strtok_r(nullptr, "&", &rest))
		if (char *value = match_parameter(piece, end, name))
			return value;
	return nullptr;
}

char *http_req_lookup_param(struct httpd_conn *conn, const char *name)
{
	span source = {};
	if (conn->method == HTTPD_METHOD_POST && conn->body)
		source = {conn->body, conn->body + conn->body_len};
	else if (conn->method == HTTPD_METHOD_GET && conn->query_len > 0)
		source = {conn->query, conn->query + conn->query_len};
	else
		return nullptr;
	char *copy = xstrndup(source.pos, source.length());
	if (!copy)
		return nullptr;
	char *value = find_parameter(copy, name);
	free(copy);
	return value;
}

int http_check_host_port(const char *text)
{
	if (strpbrk(text, "/%? "))
		return 0;
	const char *colon = strchr(text, ':');
	if (!colon)
		return 1;
	if (colon == text || !colon[1])
		return 0;
	char *end;
	unsigned long port = strtoul(colon + 1, &end, 10);
	return *end == '\0' && port >= 1 && port <= 65535;
}
