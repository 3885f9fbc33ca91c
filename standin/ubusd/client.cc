// Reads and writes without waiting, within the bounds in client.h.
#include "client.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <utility>

namespace ubusd
{

std::optional<identity> identity_of_peer(int fd)
{
	ucred credentials{};
	socklen_t length = sizeof(credentials);
	if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) < 0)
		return std::nullopt;
	const passwd *user = getpwuid(credentials.uid);
	const ::group *group = getgrgid(credentials.gid);
	if (!user || !group)
		return std::nullopt;
	return identity{credentials.uid, credentials.gid, user->pw_name, group->gr_name};
}

client::client(descriptor fd, int epoll_fd, uint32_t id, identity who)
	: fd_(std::move(fd)), epoll_fd_(epoll_fd), id_(id), who_(std::move(who))
{
}

// While a look-up is in progress its client is not read from: so answers keep their order, and there is only one look-up
// to remember. The look-up goes on when the socket is writable.
bool client::watch()
{
	uint32_t wanted = lookup ? 0U : uint32_t{EPOLLIN};
	if (lookup || !output_.empty())
		wanted |= EPOLLOUT;
	if (wanted == watched_)
		return true;
	epoll_event event{};
	event.events = wanted;
	event.data.u64 = id_;
	int operation = watched_ ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
	watched_ = wanted;
	return epoll_ctl(epoll_fd_, operation, fd_.get(), &event) == 0;
}

void client::fill()
{
	static uint8_t chunk[read_bytes_max];
	ssize_t count;
	do {
		count = recv(fd_.get(), chunk, sizeof(chunk), 0);
	} while (count < 0 && errno == EINTR);
	if (count > 0)
		input_.append(chunk, static_cast<size_t>(count));
	else if (count == 0 || errno != EAGAIN)
		input_ended_ = true;
}

// Input is kept: a client may send its last words and go.
void client::end_output()
{
	output_ended_ = true;
	output_.clear();
	lookup.reset();
}

// Writes `parts` as far as the socket takes them now. Returns the number of bytes, or nothing if the socket is broken.
static std::optional<size_t> write_now(int fd, iovec *parts, size_t part_count)
{
	msghdr text{};
	text.msg_iov = parts;
	text.msg_iovlen = part_count;
	ssize_t count;
	do {
		count = sendmsg(fd, &text, MSG_NOSIGNAL);
	} while (count < 0 && errno == EINTR);
	if (count >= 0)
		return static_cast<size_t>(count);
	if (errno == EAGAIN)
		return 0;
	return std::nullopt;
}

void client::flush()
{
	if (output_.empty())
		return;
	iovec part{output_.data(), output_.size()};
	if (std::optional<size_t> count = write_now(fd_.get(), &part, 1))
		output_.consume(*count);
	else
		end_output();
}

void client::send(uint8_t type, uint16_t seq, uint32_t peer, const blob_attr *body)
{
	if (!body || output_ended_)
		return;
	ubus_msghdr header{};
	header.type = type;
	header.seq = cpu_to_be16(seq);
	header.peer = cpu_to_be32(peer);
	size_t body_bytes = blob_raw_len(body);
	if (!may_queue(sizeof(header) + body_bytes))
		return;
	size_t written = 0;
	if (output_.empty()) {
		iovec parts[] = {{&header, sizeof(header)}, {const_cast<blob_attr *>(body), body_bytes}};
		std::optional<size_t> count = write_now(fd_.get(), parts, 2);
		if (!count)
			return end_output();
		written = *count;
	}
	if (written < sizeof(header)) {
		const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&header);
		output_.append(bytes + written, sizeof(header) - written);
		written = sizeof(header);
	}
	size_t body_written = written - sizeof(header);
	output_.append(reinterpret_cast<const uint8_t *>(body) + body_written, body_bytes - body_written);
	if (!output_.empty() && !watch())
		end_output();
}

} // namespace ubusd
