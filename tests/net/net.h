// Helpers of the tests of net: MAC addresses as bytes and as text.
#pragma once
#include <array>
#include <memory>
#include <random>
#include <string>

#include "lib/log.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"

namespace net_support
{

using namespace support;

using mac_bytes = std::array<unsigned char, 6>;

struct frees {
	void operator()(char *text) const { free(text); }
};

// A text that the library has allocated; "(null)" if it has not.
inline std::string taken(char *text)
{
	std::unique_ptr<char, frees> owner(text);
	return text ? text : "(null)";
}

inline mac_bytes bytes_at(const unsigned char *mac)
{
	mac_bytes bytes;
	memcpy(bytes.data(), mac, bytes.size());
	return bytes;
}

inline std::string mac_text(const mac_bytes &mac, const char *format = "%02x:%02x:%02x:%02x:%02x:%02x")
{
	char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
	snprintf(text, sizeof(text), format, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
#pragma GCC diagnostic pop
	return text;
}

inline std::string upper_text_of(const mac_bytes &mac)
{
	return mac_text(mac, "%02X:%02X:%02X:%02X:%02X:%02X");
}

inline std::mt19937 numbers(20240607); // the same ones in every run

inline mac_bytes random_mac()
{
	mac_bytes mac;
	for (unsigned char &byte : mac)
		byte = static_cast<unsigned char>(numbers());
	return mac;
}

inline mac_bytes random_unicast_mac()
{
	mac_bytes mac = random_mac();
	mac[0] &= 0xfe;
	mac[5] |= 1; // an address of zeros is none
	return mac;
}

inline void log_to_syslog()
{
	log_open(LOG_DEST_SYSLOG, LOG_DAEMON, nullptr);
	messages.clear();
}

} // namespace net_support
