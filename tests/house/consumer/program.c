/* A program as a user of the library writes it: one timeout, one buffer, and the loop in between. */
#include <apbase/buffer.h>
#include <apbase/evloop.h>
#include <apbase/time.h>
#include <stdio.h>

static struct buffer *text;
static int failed;

static void say(struct evloop_timeout *timeout)
{
	(void)timeout;
	failed = buffer_printf(text, "hello from a %s\n", "timeout") < 0;
	evloop_end();
}

int main(void)
{
	struct evloop_timeout timeout = {.cb = say};

	text = buffer_new();
	if (evloop_init() != 0)
		return 1;
	evloop_timeout_set(&timeout, 1);
	if (evloop_run() != 0 || failed || time_now() < timeout.expires)
		return 1;
	fwrite(text->data, 1, (size_t)text->length, stdout);
	buffer_free(text);
	evloop_done();
	return 0;
}
