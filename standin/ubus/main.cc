// ubus - the message bus at a shell prompt: lists objects, calls methods, prints notifications and events.
//
// There is one connection, and a loop only for subscribe and listen: libubus's own calls wait for answers. They wait
// without a limit, so an alarm ends the program if the bus takes too long. Each line is written at once, so the program
// may end at any time without a loss.

#include <getopt.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <charconv>
#include <memory>
#include <span>
#include <string>

#include "../standard_descriptors.h"
#include "attributes.h"
#include "json.h"

namespace
{

using words = std::span<const char *const>;

constexpr unsigned int answer_seconds = 30;
constexpr unsigned int answer_seconds_max = 1'000'000;

constexpr char usage_text[] =
	"usage: ubus [-s SOCKET] [-t SECONDS] COMMAND ...\n"
	"  list [-v] [PATH]                  prints the paths of objects, all or those that PATH names;\n"
	"                                    with -v their ids, methods and arguments, too\n"
	"  call [--json] PATH METHOD [JSON]  calls a method with the members of a JSON object as arguments,\n"
	"                                    and prints what it replies; with --json, the object or array\n"
	"                                    is sent as text in one argument \"json\"\n"
	"  subscribe PATH...                 prints the notifications of objects, one a line\n"
	"  listen [PATTERN...]               prints events, one a line; all, or those that a PATTERN names\n"
	"A * at the end of PATH (of list) or PATTERN stands for anything.\n"
	"  -s SOCKET   where the bus listens, if not at its usual place\n"
	"  -t SECONDS  how long the bus and the called object may take, 30 if not given; 0: for ever\n"
	"  -h, --help  prints this text; --version prints the version\n"
	"Exit status: that of the bus, 0 if all went well; 2 also for a command that is none of these.\n";

// ---- Failure ----

int failed(int status)
{
	fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
	return status;
}

int usage_error(const char *what, const char *word)
{
	fprintf(stderr, "ubus: %s%s; try ubus --help\n", what, word);
	return UBUS_STATUS_INVALID_ARGUMENT;
}

// An exit status for the shell: owners of objects may answer with any number.
int exit_status(int status)
{
	return status >= 0 && status <= 255 ? status : 255;
}

void on_alarm(int)
{
	static constexpr char text[] = "Command failed: Request timed out\n";
	ssize_t ignored = write(STDERR_FILENO, text, sizeof(text) - 1);
	static_cast<void>(ignored);
	_exit(UBUS_STATUS_TIMEOUT);
}

// ---- Output ----

void print(const json_owner &json, size_t format)
{
	json_dumpf(json.get(), stdout, format);
	putchar('\n');
}

void print_named(const char *name, const blob_attr *content)
{
	json_owner line{json_object()};
	json_object_set_new_nocheck(line.get(), valid_utf8(name).c_str(), json_of_message(content).release());
	print(line, 0);
}

// Hides the characters that terminals obey, in names outside of JSON, which escapes them.
std::string printable(std::string_view name)
{
	std::string text = valid_utf8(name);
	for (char &character : text)
		if (static_cast<unsigned char>(character) < ' ' || character == '\x7f')
			character = '?';
	return text;
}

// ---- list ----

const char *type_name(uint32_t type)
{
	static constexpr const char *names[] = {
		"any", "array", "table", "string", "int64", "int32", "int16", "bool", "double"};
	return type < std::size(names) ? names[type] : "?";
}

std::string argument_list(const blob_attr *method)
{
	std::string text;
	attributes arguments = attributes::in(method);
	while (blob_attr *argument = arguments.next()) {
		if (blobmsg_type(argument) != BLOBMSG_TYPE_INT32)
			continue;
		text += text.empty() ? "" : ", ";
		text += printable(blobmsg_name(argument)) + ": " + type_name(blobmsg_get_u32(argument));
	}
	return text;
}

void print_methods(const blob_attr *signature)
{
	attributes methods = attributes::in_message(signature);
	while (blob_attr *method = methods.next())
		if (blobmsg_type(method) == BLOBMSG_TYPE_TABLE)
			printf("\t%s(%s)\n", printable(blobmsg_name(method)).c_str(),
				argument_list(method).c_str());
}

std::string path_of(const ubus_object_data *object)
{
	return printable(object->path ? object->path : "");
}

void on_object(ubus_context *, ubus_object_data *object, void *)
{
	puts(path_of(object).c_str());
}

void on_object_in_detail(ubus_context *, ubus_object_data *object, void *)
{
	printf("%s @%08" PRIx32 "\n", path_of(object).c_str(), object->id);
	print_methods(object->signature);
}

int run_list(ubus_context *bus, bool verbose, words path)
{
	return ubus_lookup(
		bus, path.empty() ? nullptr : path[0], verbose ? on_object_in_detail : on_object, nullptr);
}

// ---- call ----

// No object has this id. It stays if the bus answers with success alone, as it does to users who may not see the object.
constexpr uint32_t no_id = 0;

json_owner parsed(const char *text)
{
	json_error_t error;
	json_owner json{json_loads(text, 0, &error)};
	if (!json)
		fprintf(stderr, "ubus: not JSON: %s\n", error.text);
	return json;
}

void on_reply(ubus_request *, int, blob_attr *content)
{
	print(json_of_message(content), JSON_INDENT(2));
}

int run_call(ubus_context *bus, bool as_text, words arguments)
{
	json_owner json = parsed(arguments.size() > 2 ? arguments[2] : "{}");
	message content;
	if (!json || !(as_text ? content.add_text(json.get()) : content.add_members(json.get())))
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t id = no_id;
	int status = ubus_lookup_id(bus, arguments[0], &id);
	if (status != UBUS_STATUS_OK)
		return status;
	return ubus_invoke(bus, id, arguments[1], content.head(), on_reply, nullptr, 0);
}

// ---- subscribe, listen ----

// Prints until it is stopped, or nothing more can arrive.
struct {
	size_t sources = 0;
	int status = UBUS_STATUS_OK;
} waiting;

void end_waiting(int status)
{
	if (waiting.status == UBUS_STATUS_OK)
		waiting.status = status;
}

void on_connection_lost(ubus_context *)
{
	end_waiting(UBUS_STATUS_CONNECTION_FAILED);
}

void on_stop(int)
{
	_exit(UBUS_STATUS_OK);
}

int stop_signals_fd()
{
	sigset_t stops;
	sigemptyset(&stops);
	sigaddset(&stops, SIGINT);
	sigaddset(&stops, SIGTERM);
	sigprocmask(SIG_BLOCK, &stops, nullptr);
	return signalfd(-1, &stops, SFD_CLOEXEC);
}

int wait_for_messages(ubus_context *bus)
{
	alarm(0);
	int stop_fd = stop_signals_fd();
	pollfd watched[] = {{bus->sock.fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
	for (;;) {
		ubus_handle_event(bus);
		if (ferror(stdout))
			end_waiting(UBUS_STATUS_SYSTEM_ERROR);
		if (waiting.status != UBUS_STATUS_OK)
			break;
		if (poll(watched, std::size(watched), -1) > 0 && watched[1].revents != 0)
			break;
	}
	close(stop_fd);
	return waiting.status;
}

int on_notification(ubus_context *, ubus_object *, ubus_request_data *, const char *name, blob_attr *content)
{
	print_named(name, content);
	return UBUS_STATUS_OK;
}

void on_object_removed(ubus_context *, ubus_subscriber *, uint32_t id)
{
	fprintf(stderr, "ubus: object %08" PRIx32 " has gone\n", id);
	if (--waiting.sources == 0)
		end_waiting(UBUS_STATUS_NOT_FOUND);
}

int run_subscribe(ubus_context *bus, bool, words paths)
{
	static ubus_subscriber subscriber;
	subscriber.cb = on_notification;
	subscriber.remove_cb = on_object_removed;
	waiting.sources = paths.size();
	int status = ubus_register_subscriber(bus, &subscriber);
	for (const char *path : paths) {
		uint32_t id = no_id;
		if (status == UBUS_STATUS_OK)
			status = ubus_lookup_id(bus, path, &id);
		if (status == UBUS_STATUS_OK)
			status = ubus_subscribe(bus, &subscriber, id);
	}
	return status == UBUS_STATUS_OK ? wait_for_messages(bus) : status;
}

void on_event(ubus_context *, ubus_event_handler *, const char *name, blob_attr *content)
{
	print_named(name, content);
}

int run_listen(ubus_context *bus, bool, words patterns)
{
	static ubus_event_handler handler;
	static constexpr const char *all[] = {"*"};
	handler.cb = on_event;
	for (const char *pattern : patterns.empty() ? words{all} : patterns) {
		int status = ubus_register_event_handler(bus, &handler, pattern);
		if (status != UBUS_STATUS_OK)
			return status;
	}
	return wait_for_messages(bus);
}

// ---- The command line ----

struct command {
	const char *name;
	const char *flag; // null if it has none
	size_t words_min, words_max;
	bool waits; // runs until it is stopped
	int (*run)(ubus_context *bus, bool flag, words arguments);
};

constexpr command commands[] = {
	{"list", "-v", 0, 1, false, run_list},
	{"call", "--json", 2, 3, false, run_call},
	{"subscribe", nullptr, 1, SIZE_MAX, true, run_subscribe},
	{"listen", nullptr, 0, SIZE_MAX, true, run_listen},
};

const command *find_command(std::string_view name)
{
	for (const command &candidate : commands)
		if (name == candidate.name)
			return &candidate;
	return nullptr;
}

struct options {
	const char *socket = nullptr; // null: libubus's default
	unsigned int seconds = answer_seconds;
	bool help = false;
	bool version = false;
};

bool parse_seconds(std::string_view text, unsigned int *seconds)
{
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *seconds);
	return error == std::errc{} && end == text.data() + text.size() && *seconds <= answer_seconds_max;
}

// Returns the index of the first word that is no option, or 0 after saying what is wrong.
int parse_options(int argc, char **argv, options *given)
{
	static constexpr option long_options[] = {
		{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'V'}, {}};
	for (int letter; (letter = getopt_long(argc, argv, "+s:t:h", long_options, nullptr)) != -1;) {
		if (letter == 's')
			given->socket = optarg;
		else if (letter == 'h')
			given->help = true;
		else if (letter == 'V')
			given->version = true;
		else if (letter != 't')
			return 0; // getopt_long has printed it
		else if (!parse_seconds(optarg, &given->seconds)) {
			usage_error("no number of seconds: ", optarg);
			return 0;
		}
	}
	return optind;
}

// The alarm starts before the connection is made: a bus that hangs does not even say hello.
int run(const options &given, const command &what, bool flag, words arguments)
{
	signal(SIGALRM, on_alarm);
	alarm(given.seconds);
	if (what.waits) {
		signal(SIGINT, on_stop);
		signal(SIGTERM, on_stop);
	}
	std::unique_ptr<ubus_context, void (*)(ubus_context *)> bus{ubus_connect(given.socket), ubus_free};
	if (!bus)
		return UBUS_STATUS_CONNECTION_FAILED;
	bus->connection_lost = on_connection_lost;
	if (!what.waits) {
		// libubox took them for its own loop, which does not run here.
		signal(SIGINT, SIG_DFL);
		signal(SIGTERM, SIG_DFL);
	}
	int status = what.run(bus.get(), flag, arguments);
	return status == UBUS_STATUS_OK && ferror(stdout) ? UBUS_STATUS_SYSTEM_ERROR : status;
}

// What follows the options: runs the command, or says what is wrong with it.
int obey(const options &given, words arguments)
{
	if (arguments.empty())
		return usage_error("no command", "");
	const command *what = find_command(arguments[0]);
	if (!what)
		return usage_error("no such command: ", arguments[0]);
	arguments = arguments.subspan(1);
	bool flag = what->flag && !arguments.empty() && arguments[0] == std::string_view{what->flag};
	if (flag)
		arguments = arguments.subspan(1);
	if (!arguments.empty() && arguments[0][0] == '-')
		return usage_error("no such option: ", arguments[0]);
	if (arguments.size() < what->words_min || arguments.size() > what->words_max)
		return usage_error("wrong number of words after ", what->name);
	int status = run(given, *what, flag, arguments);
	return status == UBUS_STATUS_OK ? status : failed(status);
}

} // namespace

int main(int argc, char **argv)
{
	options given;
	open_standard_descriptors();
	int first = parse_options(argc, argv, &given);
	if (first == 0)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (given.help) {
		fputs(usage_text, stdout);
		return 0;
	}
	if (given.version) {
		puts("ubus " STANDIN_VERSION);
		return 0;
	}
	setvbuf(stdout, nullptr, _IOLBF, 0);
	return exit_status(obey(given, {argv + first, argv + argc}));
}
