/*
 * A daemon on the message bus as a user of the library writes it: it connects to the bus at the socket that its argument
 * names, adds the object "hello", whose method "say" answers {"text": "hello"}, and serves it. Valid C11 and C++20.
 */
#include <apbase/evloop.h>
#include <apbase/ubus.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

static struct ubus_context *bus;

static int say(struct ubus_context *ctx, struct ubus_object *object, struct ubus_request_data *request,
	const char *method, struct blob_attr *message)
{
	static struct blob_buf answer;
	json_t *json = json_pack("{s:s}", "text", "hello");
	int status;
	(void)object, (void)method, (void)message;

	blob_buf_init(&answer, 0);
	status = ubus_pack_json_msg(&answer, json);
	json_decref(json);
	return status ? status : ubus_send_reply(ctx, request, answer.head);
}

static void on_bus(struct evloop_io *io, unsigned int events)
{
	(void)io, (void)events;
	ubus_handle_event(bus);
}

int main(int argc, char **argv)
{
	static const struct ubus_method methods[] = {UBUS_METHOD_NOARG("say", say)};
	static struct ubus_object_type type = UBUS_OBJECT_TYPE("hello", methods);
	static struct ubus_object object;
	static struct evloop_io io;

	object.name = "hello", object.type = &type, object.methods = methods,
	object.n_methods = ARRAY_SIZE(methods);
	bus = ubus_connect(argc > 1 ? argv[1] : NULL);
	if (!bus || ubus_add_object(bus, &object) != 0) {
		fprintf(stderr, "daemon: no bus\n");
		return 1;
	}
	io.cb = on_bus, io.fd = bus->sock.fd;
	if (evloop_init() != 0 || evloop_io_add(&io, EVLOOP_READ) != 0) {
		fprintf(stderr, "daemon: unable to watch the bus: %s\n", strerror(errno));
		return 1;
	}
	return evloop_run();
}
