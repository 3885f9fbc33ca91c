// Addresses of interfaces and radios, and their texts. Each query opens its socket or file and closes it again. The
// conversions to and from text return static buffers, which the next call overwrites.

#include "net.h"

#include <arpa/inet.h>
#include <bit>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>

#include "internal/owned.h"
#include "internal/path.h"
#include "log.h"

constexpr int MAC_BYTES = 6;
constexpr size_t MAC_TEXT_SIZE = 18; // with its terminator

// ---- Interfaces and radios ----

// Copies at most the 15 characters that the kernel takes. `request` is zeroed.
static void set_name(ifreq *request, const char *ifname)
{
	memcpy(request->ifr_name, ifname, strnlen(ifname, sizeof request->ifr_name - 1));
}

static int query_mac(const char *ifname, ifreq *request)
{
	owned_fd fd{socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)};
	if (!fd.ok())
		return -EINVAL;
	request->ifr_addr.sa_family = AF_INET;
	set_name(request, ifname);
	return ioctl(fd.get(), SIOCGIFHWADDR, request) == 0 ? 0 : -EINVAL;
}

char *iface_mac(const char *ifname)
{
	unsigned char mac[MAC_BYTES];
	if (iface_mac_binary(ifname, mac) != 0)
		return nullptr;
	char *text = static_cast<char *>(xmalloc(MAC_TEXT_SIZE));
	snprintf(text, MAC_TEXT_SIZE, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
		mac[5]);
	return text;
}

int iface_mac_binary(const char *ifname, unsigned char mac[6])
{
	ifreq request = {};
	if (query_mac(ifname, &request) != 0)
		return -1;
	memcpy(mac, request.ifr_hwaddr.sa_data, MAC_BYTES);
	return 0;
}

// The file's first line, without its line feed; null if there is none.
static owned_text first_line(FILE *file)
{
	char *line = nullptr;
	size_t size = 0;
	ssize_t length = getline(&line, &size, file);
	owned_text text{line};
	if (length < 0)
		text.reset();
	else if (line[length - 1] == '\n')
		line[length - 1] = '\0';
	return text;
}

char *get_radio_mac(const char *phy)
{
	char path[PATH_BYTES];
	if (!format_path(path, "/sys/class/ieee80211/%s/addresses", phy)) {
		_log(LOG_ERR, "cannot create the %s path\n", phy);
		return nullptr;
	}
	owned_file file{fopen(path, "re")};
	if (!file.ok()) {
		_log(LOG_ERR, "cannot open file %s (%s)\n", path, strerror(errno));
		return nullptr;
	}
	owned_text line = first_line(file.get());
	if (!line.ok()) {
		_log(LOG_ERR, "cannot read line of file %s\n", path);
		return nullptr;
	}
	return xstrdup(line.get()); // getline allocates more than the line
}

uint32_t get_iface_ip(const char *ifname)
{
	ifreq request = {};
	owned_fd fd{socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
	if (!fd.ok())
		return INADDR_NONE;
	set_name(&request, ifname);
	if (ioctl(fd.get(), SIOCGIFADDR, &request) != 0)
		return INADDR_NONE;
	sockaddr_in address;
	memcpy(&address, &request.ifr_addr, sizeof address);
	return address.sin_addr.s_addr;
}

// ---- Text and binary ----

unsigned char *mac_aton(const char *text)
{
	static unsigned char mac[MAC_BYTES];
	for (int index = 0; index < MAC_BYTES; index++) {
		char *end;
		long number = strtol(text, &end, 16);
		if (end == text || number < 0 || number > 255)
			break;
		if (index < MAC_BYTES - 1 && *end != ':')
			break;
		mac[index] = static_cast<unsigned char>(number);
		text = end + 1;
	}
	return mac; // compatibility, MAC prefix
}

char *mac_ntoa(const unsigned char *mac)
{
	static char text[MAC_TEXT_SIZE];
	snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
		mac[5]);
	return text;
}

// The address `n` after the one in `text`, with `first_byte_bits` set.
static char *derive_mac(const char *text, int n, unsigned char first_byte_bits)
{
	unsigned char *mac = mac_aton(text);
	mac[0] |= first_byte_bits;
	// The sixth byte carries nothing to the fifth: compatibility, no carry
	mac[4] = static_cast<unsigned char>(mac[4] + static_cast<unsigned>(n / 256));
	mac[5] = static_cast<unsigned char>(mac[5] + static_cast<unsigned>(n));
	return mac_ntoa(mac);
}

char *add_mac(const char *text, int n)
{
	return derive_mac(text, n, 0);
}

char *gen_random_mac(const char *text, int n)
{
	constexpr unsigned char LOCALLY_ADMINISTERED = 2;
	return derive_mac(text, n, LOCALLY_ADMINISTERED);
}

char *ip_ntoa(uint32_t addr)
{
	return inet_ntoa({addr});
}

int parse_netmask_string(const char *mask)
{
	in_addr address;
	if (inet_pton(AF_INET, mask, &address) != 1)
		return -1;
	return std::countl_one(ntohl(address.s_addr));
}
