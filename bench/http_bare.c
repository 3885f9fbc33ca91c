/*
 * The limit for one thread: an epoll loop with only the work that any server has. One read, a search for the
 * blank lines that end requests, and one write of as many ready-made answers. It does not parse requests, has no
 * timers and cannot wait for a slow reader.
 *
 * usage: http_bare PORT ANSWER_FILE [close]
 *	close: end each connection after the first write
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <err.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#define DESCRIPTORS_MAX 65536
#define EVENTS_MAX      64
#define READ_BYTES      16384
#define ANSWER_BYTES    1024
#define ANSWERS_A_WRITE 64
#define TAIL_BYTES      3 /* of a blank line that the end of a read cuts */

static char answers[ANSWER_BYTES * ANSWERS_A_WRITE];
static size_t answer_bytes;
static int close_after_write;

/* By descriptor: the last bytes of a read, if they may begin a blank line. */
static struct tail {
	unsigned char length;
	char bytes[TAIL_BYTES];
} tails[DESCRIPTORS_MAX];

static void load_answer(const char *file_name)
{
	FILE *file = fopen(file_name, "r");
	if (!file)
		err(1, "%s", file_name);
	answer_bytes = fread(answers, 1, ANSWER_BYTES, file);
	fclose(file);
	if (answer_bytes == 0 || answer_bytes == ANSWER_BYTES)
		errx(1, "%s: an answer has 1 to %d bytes", file_name, ANSWER_BYTES - 1);
	for (size_t i = 1; i < ANSWERS_A_WRITE; i++)
		memcpy(answers + i * answer_bytes, answers, answer_bytes);
}

static int listen_on(uint16_t port)
{
	int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
	int on = 1;
	struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(port)};
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0 ||
		bind(fd, (struct sockaddr *)&address, sizeof(address)) < 0 || listen(fd, 1024) < 0)
		err(1, "port %d", port);
	return fd;
}

static void watch(int epoll_fd, int fd)
{
	struct epoll_event event = {.events = EPOLLIN, .data.fd = fd};
	if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) < 0)
		err(1, "epoll_ctl");
}

static void accept_one(int epoll_fd, int listen_fd)
{
	int fd = accept4(listen_fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
	int on = 1;
	if (fd < 0)
		return;
	if (fd >= DESCRIPTORS_MAX) {
		close(fd);
		return;
	}
	setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
	tails[fd].length = 0;
	watch(epoll_fd, fd);
}

/* Counts the blank lines, and keeps the bytes after the last one in `tail`. */
static size_t count_requests(const char *bytes, size_t length, struct tail *tail)
{
	size_t count = 0;
	const char *end = bytes + length;
	const char *blank;
	while ((blank = memmem(bytes, (size_t)(end - bytes), "\r\n\r\n", 4))) {
		count++;
		bytes = blank + 4;
	}
	tail->length = (unsigned char)(end - bytes < TAIL_BYTES ? end - bytes : TAIL_BYTES);
	memcpy(tail->bytes, end - tail->length, tail->length);
	return count;
}

/* 0 if the connection has ended. */
static int answer(int fd)
{
	static char buffer[TAIL_BYTES + READ_BYTES];
	struct tail *tail = &tails[fd];
	ssize_t length = read(fd, buffer + TAIL_BYTES, READ_BYTES);
	if (length <= 0)
		return 0;
	memcpy(buffer + TAIL_BYTES - tail->length, tail->bytes, tail->length);
	size_t count =
		count_requests(buffer + TAIL_BYTES - tail->length, (size_t)length + tail->length, tail);
	if (count == 0)
		return 1;
	while (count > 0) {
		size_t batch = count < ANSWERS_A_WRITE ? count : ANSWERS_A_WRITE;
		size_t bytes = batch * answer_bytes;
		if (send(fd, answers, bytes, MSG_NOSIGNAL) != (ssize_t)bytes)
			return 0;
		count -= batch;
	}
	return !close_after_write;
}

int main(int argc, char **argv)
{
	struct epoll_event events[EVENTS_MAX];
	if (argc < 3 || argc > 4 || (argc == 4 && strcmp(argv[3], "close") != 0))
		errx(2, "usage: http_bare PORT ANSWER_FILE [close]");
	close_after_write = argc == 4;
	load_answer(argv[2]);
	int listen_fd = listen_on((uint16_t)atoi(argv[1]));
	int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
	if (epoll_fd < 0)
		err(1, "epoll_create1");
	watch(epoll_fd, listen_fd);
	for (;;) {
		int count = epoll_wait(epoll_fd, events, EVENTS_MAX, -1);
		for (int i = 0; i < count; i++) {
			int fd = events[i].data.fd;
			if (fd == listen_fd)
				accept_one(epoll_fd, listen_fd);
			else if (!answer(fd))
				close(fd);
		}
	}
}
