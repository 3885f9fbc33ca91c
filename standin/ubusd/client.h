// One connection: its input that is not parsed yet, its output that is not written yet, and the peer's identity. It
// deals in messages, and knows nothing of objects.
//
// The socket never blocks. Output waits in a queue with a bound; beyond it messages are dropped. So a peer that reads too
// slowly misses messages, and costs nobody else anything. A full queue does not stop the reading: a peer that sends many
// requests before it reads an answer would wait forever.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "wire.h"

namespace ubusd
{

struct object;

// The bound of the queue: one message of the greatest length.
inline constexpr size_t queue_bytes_max = UBUS_MAX_MSGLEN;
// A look-up goes on while less than this waits for its client; the rest of the queue is for other messages.
inline constexpr size_t lookup_queue_bytes = size_t{64} * 1024;
// One read a turn reads at most this much; then it is the other clients' turn.
inline constexpr size_t read_bytes_max = size_t{64} * 1024;

// The peer, as the kernel and the password and group files know it.
struct identity {
	uid_t uid = 0;
	gid_t gid = 0;
	std::string user, group;

	bool is_root() const { return uid == 0; }
};

// Who is connected to `fd`; nothing when the user or the group has no entry.
std::optional<identity> identity_of_peer(int fd);

// A look-up in progress: it goes on after `last` as its client reads.
struct pending_lookup {
	uint16_t seq = 0;
	uint32_t peer = 0;
	std::string prefix; // of the paths asked for
	std::string last;   // the path handled last
	bool begun = false; // `last` is valid
	bool found = false; // decides the status at the end
};

class client
{
	descriptor fd_;
	int epoll_fd_;
	uint32_t watched_ = 0;
	uint32_t id_;
	identity who_;
	byte_queue input_, output_;
	bool input_ended_ = false;  // nothing more will come
	bool output_ended_ = false; // nobody will read what is sent

	bool may_queue(size_t length) const
	{
		return output_.empty() || output_.size() + length <= queue_bytes_max;
	}
	void end_output();

public:
	std::optional<pending_lookup> lookup;
	std::vector<object *> objects; // its own, the oldest first
	// What the bus holds for it.
	size_t subscription_count = 0, pattern_count = 0, held_bytes = 0;

	client(descriptor fd, int epoll_fd, uint32_t id, identity who);
	client(const client &) = delete;
	client &operator=(const client &) = delete;

	uint32_t id() const { return id_; }
	const identity &who() const { return who_; }
	bool input_ended() const { return input_ended_; }
	bool output_ended() const { return output_ended_; }

	// Asks for the events of the descriptor that matter now; false when the kernel refuses.
	bool watch();
	// Reads once what there is to read.
	void fill();
	framing next(frame *result) { return frame_parse(&input_, result); }
	// Ends the use of the frame from next().
	void consume(const frame &used) { input_.consume(used.length()); }
	// Writes queued output as far as the socket takes it.
	void flush();
	// For a client that has closed both directions: nothing can be written, but its last words can be read.
	void hang_up() { end_output(); }

	// Sends or queues a message; drops it when the queue is full or `body` is null.
	void send(uint8_t type, uint16_t seq, uint32_t peer, const blob_attr *body);
	void send(uint8_t type, uint16_t seq, uint32_t peer, const message &body)
	{
		send(type, seq, peer, body.body());
	}
	// True while a look-up may add this message to the queue.
	bool has_room(const message &body) const
	{
		size_t length = sizeof(ubus_msghdr) + (body.body() ? blob_raw_len(body.body()) : 0);
		return output_.size() < lookup_queue_bytes && may_queue(length);
	}
};

} // namespace ubusd
