// What the tests of lib/ubus share: a second process that serves objects as the test tells it, a libubus
// context on the library's loop, an object through which a test gets into synchronous calls, and the lines
// that are logged meanwhile.
#pragma once
#include <errno.h>
#include <libubus.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/evloop.h"
#include "lib/log.h"
#include "tests/support/bus.h"
#include "tests/support/support.h"

// Present in sanitized programs only.
extern "C" void __sanitizer_set_report_fd(void *) __attribute__((weak));

namespace support
{

// ---- Messages ----

// A message that is put together without the library under test: by default one attribute "json" of type
// UNSPEC.
class json_message
{
	blob_buf buf_{};

public:
	json_message() { blob_buf_init(&buf_, 0); }
	explicit json_message(const std::string &text) : json_message() { add("json", text); }
	json_message(const json_message &) = delete;
	json_message &operator=(const json_message &) = delete;
	~json_message() { blob_buf_free(&buf_); }

	json_message &add(const char *name, const std::string &value, int type = BLOBMSG_TYPE_UNSPEC)
	{
		EXPECT_EQ(blobmsg_add_field(
				  &buf_, type, name, value.data(), static_cast<unsigned int>(value.size())),
			0);
		return *this;
	}
	blob_buf *buf() { return &buf_; }
	blob_attr *head() { return buf_.head; }
};

// What a blob holds, without its own word.
inline std::string contents_of(const blob_attr *message)
{
	return {static_cast<const char *>(blob_data(message)), blob_len(message)};
}

// ---- The serving side: a process of its own that takes commands ----

// What runs in the server's process. One packet is one command, "word arguments...", which is answered
// with "=number". What happens meanwhile is told in packets that begin with another character.
class server_process
{
	struct served_object : ubus_object {
		ubus_object_type own_type{};
		std::string own_path;
		bool removed_when_subscribed = false;
	};
	enum class mode { answers, holds, ends };
	static constexpr size_t reported_bytes_max = 32768;

	static inline server_process *self = nullptr;

	int control_;
	std::string bus_path_;
	ubus_context *ctx_ = nullptr;
	bool lost_ = false;
	std::vector<std::unique_ptr<served_object>> objects_; // the removed ones too: libubus may be in them
	mode mode_ = mode::answers;
	int answer_status_ = 0;
	std::string answer_data_;
	std::vector<ubus_request_data> held_;

	void tell(const std::string &packet) const
	{
		if (send(control_, packet.data(), packet.size(), MSG_NOSIGNAL) < 0)
			_exit(1);
	}
	served_object *find(const std::string &path) const
	{
		for (const auto &object : objects_)
			if (object->own_path == path && object->id != 0)
				return object.get();
		return nullptr;
	}

	int called(ubus_object *object, ubus_request_data *request, const char *method, blob_attr *message)
	{
		tell("c" + static_cast<served_object *>(object)->own_path + " " + method + "\n" +
			contents_of(message).substr(0, reported_bytes_max));
		switch (mode_) {
		case mode::holds:
			held_.emplace_back();
			ubus_defer_request(ctx_, request, &held_.back());
			return 0;
		case mode::ends:
			_exit(0);
		case mode::answers:
			break;
		}
		if (!answer_data_.empty()) {
			json_message message_back{answer_data_};
			ubus_send_reply(ctx_, request, message_back.head());
		}
		return answer_status_;
	}
	void subscribers_changed(served_object *object)
	{
		tell("s" + object->own_path + (object->has_subscribers ? " 1" : " 0"));
		if (object->has_subscribers && object->removed_when_subscribed)
			ubus_remove_object(ctx_, object);
	}
	static int on_call(ubus_context *, ubus_object *object, ubus_request_data *request,
		const char *method, blob_attr *message)
	{
		return self->called(object, request, method, message);
	}
	static void on_subscribers(ubus_context *, ubus_object *object)
	{
		self->subscribers_changed(static_cast<served_object *>(object));
	}

	// The object's id, or a negated status.
	int64_t add(const std::string &path, bool typed)
	{
		static const ubus_method announced[] = {{"any", on_call, 0, 0, nullptr, 0}};
		static const ubus_method catch_all[] = {{nullptr, on_call, 0, 0, nullptr, 0}};
		auto object = std::make_unique<served_object>();
		object->own_path = path;
		object->own_type.name = "served";
		object->own_type.methods = announced;
		object->own_type.n_methods = 1;
		if (!typed)
			object->own_type.id = 1; // the bus does not know it and gives the object none
		object->name = object->own_path.c_str();
		object->type = &object->own_type;
		object->methods = catch_all;
		object->n_methods = 1;
		object->subscribe_cb = on_subscribers;
		int status = ubus_add_object(ctx_, object.get());
		if (status != 0)
			return -status;
		objects_.push_back(std::move(object));
		return objects_.back()->id;
	}
	int64_t release(int status)
	{
		auto count = static_cast<int64_t>(held_.size());
		for (ubus_request_data &request : held_) {
			if (!answer_data_.empty()) {
				json_message message_back{answer_data_};
				ubus_send_reply(ctx_, &request, message_back.head());
			}
			ubus_complete_deferred_request(ctx_, &request, status);
		}
		held_.clear();
		return count;
	}
	int64_t reconnect()
	{
		int status = ubus_reconnect(ctx_, bus_path_.c_str());
		lost_ = status != 0;
		return status;
	}
	// About one of its objects.
	int64_t obey(const std::string &word, served_object *object, std::istringstream &words)
	{
		if (!object)
			return -UBUS_STATUS_NOT_FOUND;
		if (word == "remove")
			return -ubus_remove_object(ctx_, object);
		if (word == "notify") {
			std::string type, text;
			words >> type;
			std::getline(words >> std::ws, text);
			json_message message{text};
			return -ubus_notify(ctx_, object, type.c_str(), message.head(), -1);
		}
		if (word != "remove_when_subscribed")
			return -UBUS_STATUS_NOT_SUPPORTED;
		object->removed_when_subscribed = true;
		return 0;
	}
	int64_t obey(const std::string &command)
	{
		std::istringstream words(command);
		std::string word, path;
		words >> word;
		if (word == "reconnect")
			return reconnect();
		if (word == "release") {
			int status = 0;
			words >> status;
			return release(status);
		}
		if (word == "hold" || word == "end") {
			mode_ = word == "hold" ? mode::holds : mode::ends;
			return 0;
		}
		if (word == "answer") {
			mode_ = mode::answers;
			words >> answer_status_;
			answer_data_.clear();
			std::getline(words >> std::ws, answer_data_);
			return 0;
		}
		words >> path;
		if (word == "add" || word == "add_without_type")
			return add(path, word == "add");
		return obey(word, find(path), words);
	}
	void take_command()
	{
		char packet[65536];
		ssize_t length = recv(control_, packet, sizeof(packet), 0);
		if (length == 0)
			_exit(0);
		if (length < 0)
			return;
		tell("=" + std::to_string(obey(std::string(packet, static_cast<size_t>(length)))));
	}
	void serve_bus()
	{
		do
			ubus_handle_event(ctx_);
		while (!lost_ && !ctx_->sock.eof && !list_empty(&ctx_->pending));
	}
	static void on_lost(ubus_context *) { self->lost_ = true; }

public:
	server_process(int control, std::string bus_path) : control_(control), bus_path_(std::move(bus_path))
	{
		self = this;
	}

	[[noreturn]] void run()
	{
		ctx_ = ubus_connect(bus_path_.c_str());
		if (!ctx_)
			_exit(2);
		ctx_->connection_lost = on_lost;
		tell("=0");
		for (;;) {
			// What a synchronous call has read beyond its answer is not readable any more.
			if (!lost_ && !list_empty(&ctx_->pending))
				serve_bus();
			pollfd entries[2] = {{control_, POLLIN, 0}, {lost_ ? -1 : ctx_->sock.fd, POLLIN, 0}};
			if (poll(entries, 2, -1) < 0)
				continue;
			if (entries[1].revents)
				serve_bus();
			if (entries[0].revents)
				take_command();
		}
	}
};

// A process on the bus that the test commands; every command has taken effect at the bus daemon when it
// returns. It ends with this object, without saying goodbye.
class object_server
{
public:
	struct call {
		std::string object, method;
		std::string message; // the attributes that came with it

		// The bytes of the first attribute if that is "json" of type UNSPEC, and "?" if not.
		std::string json() const
		{
			constexpr size_t before_value = 4 + 8; // the attribute's word, the name
			if (message.size() < before_value || wire::number_at(message) >> 24 != 0x80 ||
				message.compare(4, 6, std::string("\0\4json", 6)) != 0)
				return "?";
			return message.substr(
				before_value, (wire::number_at(message) & 0xffffff) - before_value);
		}
	};

private:
	pid_t pid_ = -1;
	owned_fd control_;
	std::vector<call> calls_;
	std::map<std::string, std::vector<bool>> subscribers_;
	std::optional<int64_t> result_;

	static constexpr size_t packet_bytes_max = 65536;

	[[noreturn]] static void run_process(pid_t parent, int control, const std::string &bus_path)
	{
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		if (getppid() != parent)
			_exit(127);
		if (__sanitizer_set_report_fd)
			__sanitizer_set_report_fd(reinterpret_cast<void *>(intptr_t{2}));
		// No connection of the test's stays open because it is open here. What libubox has stays.
		for (int fd : open_descriptors())
			if (fd > 2 && fd != control && descriptor_target(fd).starts_with("socket:"))
				close(fd);
		server_process(control, bus_path).run();
	}
	void take(const std::string &packet)
	{
		size_t space = packet.find(' ');
		switch (packet.empty() ? '\0' : packet[0]) {
		case '=':
			result_ = atoll(packet.c_str() + 1);
			break;
		case 's':
			subscribers_[packet.substr(1, space - 1)].push_back(packet.back() == '1');
			break;
		case 'c': {
			size_t end = packet.find('\n');
			calls_.push_back({packet.substr(1, space - 1),
				packet.substr(space + 1, end - space - 1), packet.substr(end + 1)});
			break;
		}
		default:
			ADD_FAILURE() << "the server says: " << packet;
		}
	}
	// False when there is none.
	bool take_packet(int timeout_ms)
	{
		std::string packet(packet_bytes_max, '\0');
		if (control_.get() < 0 || !wait_for(control_.get(), POLLIN, timeout_ms))
			return false;
		ssize_t length = recv(control_.get(), packet.data(), packet.size(), MSG_DONTWAIT);
		if (length <= 0)
			return false;
		packet.resize(static_cast<size_t>(length));
		take(packet);
		return true;
	}
	int64_t wait_for_result()
	{
		result_.reset();
		while (!result_)
			if (!take_packet(deadline_ms)) {
				ADD_FAILURE() << "the server does not answer";
				return INT64_MIN;
			}
		return *result_;
	}
	void take_packets()
	{
		while (take_packet(0))
			;
	}

public:
	explicit object_server(const std::string &bus_path)
	{
		socket_pair control{SOCK_SEQPACKET};
		fflush(nullptr);
		pid_t parent = getpid();
		pid_ = fork();
		if (pid_ == 0)
			run_process(parent, control.far.get(), bus_path);
		EXPECT_GT(pid_, 0) << strerror(errno);
		control.far.reset();
		control_ = std::move(control.near);
		EXPECT_EQ(wait_for_result(), 0) << "no connection to the bus";
	}
	object_server(const object_server &) = delete;
	object_server &operator=(const object_server &) = delete;
	~object_server() { kill(); }

	// Ends the process; the bus daemon notices later.
	void kill()
	{
		if (pid_ <= 0)
			return;
		::kill(pid_, SIGKILL);
		while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR)
			;
		pid_ = -1;
		take_packets();
		control_.reset();
	}

	int64_t command(const std::string &text)
	{
		EXPECT_TRUE(write_all(control_.get(), text)) << text;
		return wait_for_result();
	}
	// An object that takes every method; its id.
	uint32_t add(const std::string &path)
	{
		int64_t id = command("add " + path);
		EXPECT_GT(id, 0) << path;
		return static_cast<uint32_t>(id);
	}
	// The bus finds such an object, but does not say its id.
	void add_without_type(const std::string &path)
	{
		EXPECT_GT(command("add_without_type " + path), 0) << path;
	}
	void remove(const std::string &path) { EXPECT_EQ(command("remove " + path), 0) << path; }
	// As soon as somebody has subscribed to it.
	void remove_when_subscribed(const std::string &path)
	{
		EXPECT_EQ(command("remove_when_subscribed " + path), 0) << path;
	}
	// What becomes of calls from now on: an answer (of the beginning, 0 without data), none until
	// release, or the end of the process.
	void answer(int status, const std::string &json = {})
	{
		command("answer " + std::to_string(status) + " " + json);
	}
	void hold() { command("hold"); }
	void end_when_called() { command("end"); }
	// Answers the calls that are held, with the data of the last `answer` if there was any, and
	// returns their number.
	int64_t release(int status) { return command("release " + std::to_string(status)); }
	void notify(const std::string &path, const std::string &type, const std::string &json = "{}")
	{
		EXPECT_EQ(command("notify " + path + " " + type + " " + json), 0) << path;
	}
	// After the bus daemon has been restarted: the objects are back under new ids.
	void reconnect() { EXPECT_EQ(command("reconnect"), 0); }

	// What has come so far.
	const std::vector<call> &calls()
	{
		take_packets();
		return calls_;
	}
	// Each time that the first subscriber came (true) or the last one left (false).
	const std::vector<bool> &subscribers(const std::string &path)
	{
		take_packets();
		return subscribers_[path];
	}
	bool has_subscribers(const std::string &path)
	{
		return !subscribers(path).empty() && subscribers(path).back();
	}
};

// ---- This process on the bus ----

// A context on the library's loop, put there as lib/ubus.h shows.
class bus_client
{
	struct watched : evloop_io {
		bus_client *owner;
	};
	static inline std::map<const ubus_context *, bus_client *> clients;

	watched io_{};

	static void on_readable(evloop_io *io, unsigned int)
	{
		bus_client *self = static_cast<watched *>(io)->owner;
		do
			ubus_handle_event(self->ctx);
		while (self->ctx && !self->ctx->sock.eof && !list_empty(&self->ctx->pending));
	}
	static void on_connection_lost(ubus_context *lost)
	{
		bus_client *self = clients.at(lost);
		++self->losses;
		self->stop_watching();
		if (auto copy = self->on_lost)
			copy();
	}
	void watch()
	{
		clients[ctx] = this;
		ctx->connection_lost = on_connection_lost;
		io_.cb = on_readable;
		io_.owner = this;
		io_.fd = ctx->sock.fd;
		EXPECT_EQ(evloop_io_add(&io_, EVLOOP_READ), 0);
	}

public:
	ubus_context *ctx = nullptr;
	int losses = 0; // calls of connection_lost
	std::function<void()> on_lost;

	bus_client() = default;
	bus_client(const bus_client &) = delete;
	bus_client &operator=(const bus_client &) = delete;
	~bus_client() { free(); }

	bool connect(const std::string &path)
	{
		ctx = ubus_connect(path.c_str());
		if (ctx)
			watch();
		return ctx;
	}
	// A status.
	int reconnect(const std::string &path)
	{
		stop_watching();
		int status = ubus_reconnect(ctx, path.c_str());
		if (status == 0)
			watch();
		return status;
	}
	void free()
	{
		if (!ctx)
			return;
		stop_watching();
		clients.erase(ctx);
		ubus_free(std::exchange(ctx, nullptr));
	}
	// The loop leaves the context alone; what arrives waits in the socket.
	void stop_watching()
	{
		if (io_.registered) {
			EXPECT_EQ(evloop_io_delete(&io_), 0);
		}
	}
	void watch_again()
	{
		if (!io_.registered)
			watch();
	}
	bool request_is_linked() const { return !list_empty(&ctx->requests); }
	int linked_requests() const
	{
		int count = 0;
		for (const list_head *link = ctx->requests.next; link != &ctx->requests; link = link->next)
			++count;
		return count;
	}
};

// An object of this process. Calls of it run `on_call` wherever libubus serves the context, also inside
// synchronous calls; they come from a connection of its own.
class probe
{
	struct probed : ubus_object {
		probe *owner;
	};

	bus_client &client_;
	raw_client caller_;
	probed object_{};
	ubus_method method_{};

	static int on_method(
		ubus_context *, ubus_object *object, ubus_request_data *, const char *, blob_attr *)
	{
		probe *self = static_cast<probed *>(object)->owner;
		++self->calls;
		if (auto copy = self->on_call)
			copy();
		return 0;
	}

public:
	int calls = 0;
	std::function<void()> on_call;

	probe(const bus_daemon &bus, bus_client &client) : client_(client), caller_(bus.path())
	{
		object_.owner = this;
		method_.handler = on_method;
		object_.methods = &method_;
		object_.n_methods = 1;
		EXPECT_EQ(ubus_add_object(client.ctx, &object_), 0);
	}
	probe(const probe &) = delete;
	probe &operator=(const probe &) = delete;
	~probe()
	{
		if (client_.ctx && object_.id != 0)
			ubus_remove_object(client_.ctx, &object_);
	}

	// Returns when a call waits in the socket of the context, so that whatever reads it next meets it.
	void send_call()
	{
		caller_.invoke(object_.id, "run");
		caller_.drain();
		EXPECT_TRUE(wait_for(client_.ctx->sock.fd, POLLIN));
	}
};

// ---- The log ----

// Standard error, where priority 3 goes, while this object lives.
class captured_log
{
	owned_fd saved_, file_;
	size_t taken_ = 0;

	static void report_to(int fd)
	{
		if (__sanitizer_set_report_fd)
			__sanitizer_set_report_fd(reinterpret_cast<void *>(intptr_t{fd}));
	}

public:
	captured_log()
		: saved_(fcntl(2, F_DUPFD_CLOEXEC, 3)), file_(memfd_create("apbase-test-log", MFD_CLOEXEC))
	{
		fflush(stderr);
		EXPECT_EQ(dup2(file_.get(), 2), 2) << strerror(errno);
		report_to(saved_.get());
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
	}
	captured_log(const captured_log &) = delete;
	captured_log &operator=(const captured_log &) = delete;
	~captured_log()
	{
		report_to(2);
		dup2(saved_.get(), 2);
	}

	// What has been written since the last time.
	std::string take()
	{
		std::string text;
		char chunk[4096];
		ssize_t count;
		while ((count = pread(file_.get(), chunk, sizeof(chunk), static_cast<off_t>(taken_))) > 0) {
			text.append(chunk, static_cast<size_t>(count));
			taken_ += static_cast<size_t>(count);
		}
		return text;
	}
};

// A fixture with a bus daemon and a client of it on the loop. A test takes every line that it expects in
// the log, and leaves no timeout, watcher, child or descriptor.
class bus_test : public loop_test
{
	std::optional<captured_log> log_;

	// What a process keeps for good once it has had a context. The library's loop comes first, since
	// that is how epoll_descriptor tells it from libubox's.
	static void connect_once()
	{
		ASSERT_EQ(evloop_init(), 0);
		bus_daemon first;
		ubus_context *ctx = ubus_connect(first.path().c_str());
		ASSERT_TRUE(ctx);
		ubus_free(ctx);
	}

protected:
	std::optional<bus_daemon> bus;
	bus_client client;

	static void SetUpTestSuite() { connect_once(); }
	void SetUp() override
	{
		loop_test::SetUp();
		log_.emplace();
		bus.emplace();
		ASSERT_TRUE(client.connect(bus->path()));
	}
	void TearDown() override
	{
		client.free();
		bus.reset();
		EXPECT_EQ(take_log(), "");
		log_.reset();
		loop_test::TearDown();
	}

	std::string take_log() { return log_->take(); }
	// Runs the loop until `text` is in the log, and nothing else.
	testing::AssertionResult logs(const std::string &text)
	{
		std::string seen;
		run_until([&] { return (seen += take_log()).size() >= text.size(); });
		if (seen == text)
			return testing::AssertionSuccess();
		return testing::AssertionFailure()
		       << "logged: \"" << seen << "\" instead of \"" << text << "\"";
	}
	// Runs the loop until a connection of the client's is lost.
	bool run_until_lost()
	{
		int before = client.losses;
		return run_until([&] { return client.losses > before; });
	}
	// The answer to the client's own look-up, while the loop stands still.
	bool is_on_bus(const std::string &path) const
	{
		raw_client other{bus->path()};
		return other.status_of(wire::lookup, 0, wire::text(wire::attr_objpath, path)) == 0;
	}
	// For owners that were killed: the bus daemon takes a moment to notice.
	bool wait_until_gone(const std::string &path) const
	{
		return eventually([&] { return !is_on_bus(path); });
	}
};

} // namespace support
