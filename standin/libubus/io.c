/*
 * The socket. A message is written as a whole, however long that takes. It is read in two steps: its header with the
 * first word of its blob, which has the length of the rest, and then the rest, straight into the context's buffer.
 * Nothing is read ahead, so the socket stays readable as long as a message is left.
 */
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "internal.h"

#define DEFAULT_PATH "/var/run/ubus/ubus.sock"

/* A header and the blob's first word. */
struct message_head {
	struct ubus_msghdr header;
	uint32_t id_len;
};

/* The blob; only its first word is present. */
static const struct blob_attr *blob_of(const struct message_head *head)
{
	return (const struct blob_attr *)&head->id_len;
}

int64_t ubus_now_ms(void)
{
	struct timespec time;
	clock_gettime(CLOCK_MONOTONIC, &time);
	return (int64_t)time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

void ubus_message_init(struct ubus_message *message)
{
	memset(message, 0, sizeof(*message));
	message->complete = blob_buf_init(&message->buf, 0) == 0;
}

void ubus_message_put(struct ubus_message *message, int id, const void *data, size_t len)
{
	message->complete =
		message->complete && len <= UINT_MAX && blob_put(&message->buf, id, data, (unsigned int)len);
}

void ubus_message_put_u8(struct ubus_message *message, int id, uint8_t value)
{
	ubus_message_put(message, id, &value, sizeof(value));
}

void ubus_message_put_u32(struct ubus_message *message, int id, uint32_t value)
{
	value = cpu_to_be32(value);
	ubus_message_put(message, id, &value, sizeof(value));
}

void ubus_message_put_string(struct ubus_message *message, int id, const char *text)
{
	ubus_message_put(message, id, text, strlen(text) + 1);
}

void ubus_message_put_children(struct ubus_message *message, int id, const struct blob_attr *parent)
{
	if (parent)
		ubus_message_put(message, id, blob_data(parent), blob_len(parent));
	else
		ubus_message_put(message, id, NULL, 0);
}

static void wait_until_writable(int fd)
{
	struct pollfd entry = {.fd = fd, .events = POLLOUT};
	poll(&entry, 1, -1);
}

/* Drops the first `count` bytes of `parts`. */
static void advance(struct iovec *parts, size_t *part_count, size_t count)
{
	struct iovec *first = parts;
	while (*part_count && count >= first->iov_len) {
		count -= first->iov_len;
		++first;
		--*part_count;
	}
	memmove(parts, first, *part_count * sizeof(*parts));
	if (*part_count) {
		parts->iov_base = (char *)parts->iov_base + count;
		parts->iov_len -= count;
	}
}

static bool write_all(int fd, struct iovec *parts, size_t part_count)
{
	while (part_count) {
		struct msghdr out = {.msg_iov = parts, .msg_iovlen = part_count};
		ssize_t count = sendmsg(fd, &out, MSG_NOSIGNAL);
		if (count >= 0)
			advance(parts, &part_count, (size_t)count);
		else if (errno == EAGAIN)
			wait_until_writable(fd);
		else if (errno != EINTR)
			return false;
	}
	return true;
}

bool ubus_message_send(
	struct ubus_context *ctx, struct ubus_message *message, int type, uint16_t seq, uint32_t peer)
{
	bool sent = false;
	if (message->complete) {
		struct ubus_msghdr header = {
			.type = (uint8_t)type, .seq = cpu_to_be16(seq), .peer = cpu_to_be32(peer)};
		struct iovec parts[] = {
			{&header, sizeof(header)}, {message->buf.head, blob_raw_len(message->buf.head)}};
		sent = write_all(ctx->sock.fd, parts, ARRAY_SIZE(parts));
		if (!sent)
			ctx->sock.eof = true;
	}
	blob_buf_free(&message->buf);
	return sent;
}

void ubus_parse_msg(struct blob_attr *msg, struct blob_attr *attrs[UBUS_ATTR_MAX])
{
	static const struct blob_attr_info types[UBUS_ATTR_MAX] = {
		[UBUS_ATTR_STATUS] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_OBJPATH] = {.type = BLOB_ATTR_STRING},
		[UBUS_ATTR_OBJID] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_METHOD] = {.type = BLOB_ATTR_STRING},
		[UBUS_ATTR_OBJTYPE] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_SIGNATURE] = {.type = BLOB_ATTR_NESTED},
		[UBUS_ATTR_DATA] = {.type = BLOB_ATTR_NESTED},
		[UBUS_ATTR_TARGET] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_ACTIVE] = {.type = BLOB_ATTR_INT8},
		[UBUS_ATTR_NO_REPLY] = {.type = BLOB_ATTR_INT8},
		[UBUS_ATTR_SUBSCRIBERS] = {.type = BLOB_ATTR_NESTED},
		[UBUS_ATTR_USER] = {.type = BLOB_ATTR_STRING},
		[UBUS_ATTR_GROUP] = {.type = BLOB_ATTR_STRING},
	};
	blob_parse(msg, attrs, types, UBUS_ATTR_MAX);
}

int ubus_socket_open(const char *path)
{
	struct sockaddr_un name = {.sun_family = AF_UNIX};
	if (!path)
		path = DEFAULT_PATH;
	if (strlen(path) >= sizeof(name.sun_path)) {
		errno = ENAMETOOLONG;
		return -1;
	}
	memcpy(name.sun_path, path, strlen(path));

	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd >= 0 && connect(fd, (const struct sockaddr *)&name, sizeof(name)) < 0) {
		close(fd);
		return -1;
	}
	return fd;
}

bool ubus_socket_wait(int fd, int64_t end_ms)
{
	while (fd >= 0) {
		int64_t left_ms = end_ms < 0 ? -1 : end_ms - ubus_now_ms();
		if (end_ms >= 0 && left_ms <= 0)
			return false;
		struct pollfd entry = {.fd = fd, .events = POLLIN};
		int count = poll(&entry, 1, left_ms > INT_MAX ? INT_MAX : (int)left_ms);
		if (count > 0 || (count < 0 && errno != EINTR))
			break;
	}
	return true;
}

/* A message's length is in its blob's first word. */
static bool head_is_well_formed(const struct message_head *head)
{
	return head->header.version == 0 && blob_raw_len(blob_of(head)) >= sizeof(struct blob_attr) &&
	       blob_pad_len(blob_of(head)) <= UBUS_MAX_MSGLEN;
}

/* One blocking read: the daemon writes its hello in one piece. A signal makes it fail. */
static bool read_at_once(int fd, void *into, size_t length)
{
	return read(fd, into, length) == (ssize_t)length;
}

static bool skip_at_once(int fd, size_t length)
{
	void *bytes = malloc(length + 1);
	bool skipped = bytes && read_at_once(fd, bytes, length);
	free(bytes);
	return skipped;
}

bool ubus_socket_read_hello(int fd, struct ubus_msghdr *header)
{
	struct message_head head;
	if (!read_at_once(fd, &head, sizeof(head)) || !head_is_well_formed(&head))
		return false;
	*header = head.header;
	return head.header.type == UBUS_MSG_HELLO && head.header.peer > UBUS_CLIENT_ID_CHANNEL &&
	       skip_at_once(fd, blob_len(blob_of(&head)));
}

/* Waits for all bytes once the first have arrived, or from the start if `must_wait`. */
static bool receive_all(struct ubus_context *ctx, void *into, size_t length, bool must_wait)
{
	for (size_t done = 0; done < length;) {
		ssize_t count = read(ctx->sock.fd, (char *)into + done, length - done);
		if (count > 0) {
			done += (size_t)count;
		} else if (count < 0 && errno == EAGAIN) {
			if (done == 0 && !must_wait)
				return false;
			ubus_socket_wait(ctx->sock.fd, -1);
		} else if (count == 0 || errno != EINTR) {
			ctx->sock.eof = true;
			return false;
		}
	}
	return true;
}

/* Makes the context's buffer at least `length` bytes long; its contents are lost. */
static bool reserve(struct ubus_context *ctx, size_t length)
{
	if (length <= ctx->msgbuf_data_len)
		return true;
	size_t chunks = (length + UBUS_MSG_CHUNK_SIZE - 1) / UBUS_MSG_CHUNK_SIZE;
	free(ctx->msgbuf.data);
	ctx->msgbuf.data = malloc(chunks * UBUS_MSG_CHUNK_SIZE);
	ctx->msgbuf_data_len = ctx->msgbuf.data ? (uint32_t)(chunks * UBUS_MSG_CHUNK_SIZE) : 0;
	return ctx->msgbuf.data;
}

bool ubus_receive(struct ubus_context *ctx)
{
	struct message_head head;
	if (!receive_all(ctx, &head, sizeof(head), false))
		return false;
	if (!head_is_well_formed(&head) || !reserve(ctx, blob_pad_len(blob_of(&head))))
		return false;

	ctx->msgbuf.hdr = head.header;
	ctx->msgbuf.data->id_len = head.id_len;
	if (!receive_all(ctx, blob_data(ctx->msgbuf.data), blob_len(blob_of(&head)), true))
		return false;
	blob_fill_pad(ctx->msgbuf.data);
	return true;
}
