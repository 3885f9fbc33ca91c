/*
 * net - addresses of interfaces and radios; MAC and IPv4 addresses as text and in binary.
 *
 * A MAC address is 6 bytes in the order of sending, or 17 characters: two hexadecimal digits a byte,
 * colons between. An IPv4 address is a number in network byte order. Text is never null. Of an
 * interface's name 15 characters count.
 *
 * One thread. A "static" result lies in memory that the next function with such a result may overwrite.
 */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Reads the MAC address of a network interface: the first 6 bytes of its hardware address, zeros for the
 * loopback. Needs CAP_NET_RAW. Nothing is logged.
 *
 * Returns:   iface_mac: lower-case text; iface_mac_binary: 0, with the bytes in `mac`.
 * Errors:    null, or -1 with `mac` as it was. Exhausted memory ends the process.
 * Ownership: the caller frees the text.
 */
char *iface_mac(const char *ifname);
int iface_mac_binary(const char *ifname, unsigned char mac[6]) __attribute__((warn_unused_result));

/*
 * Reads the first address of a wireless PHY ("phy0"): the first line of
 * /sys/class/ieee80211/<phy>/addresses.
 *
 * Returns:   text.
 * Errors:    null, logged unless the text finds no memory. A path over 4096 characters is refused; one of
 *            exactly 4096 loses its last.
 * Ownership: the caller frees the text.
 */
char *get_radio_mac(const char *phy);

/*
 * Reads the first IPv4 address of a network interface. Needs CAP_NET_RAW. Nothing is logged.
 *
 * Returns:   the address.
 * Errors:    all ones (0xFFFFFFFF), also without an address.
 */
uint32_t get_iface_ip(const char *ifname);

/*
 * Reads six hexadecimal numbers below 256 with colons between; anything may follow. Before each it takes,
 * as strtol does, blanks, a sign or "0x".
 *
 * Returns:   6 static bytes.
 * Errors:    none: from the first malformed byte on they stay what they were, zeros at first.
 */
unsigned char *mac_aton(const char *text);

/* Returns:   the 6 bytes at `mac` as upper-case text, static. */
char *mac_ntoa(const unsigned char *mac);

/*
 * Moves the address in `text` by `n`: the sixth byte by n, the fifth by n / 256 (towards zero), modulo
 * 256. Nothing is carried: 00:11:22:33:44:ff and 1 make 00:11:22:33:44:00.
 *
 * Returns:   as mac_ntoa. mac_aton reads `text`, and its memory keeps the result's bytes.
 */
char *add_mac(const char *text, int n);

/* As add_mac, but locally administered: 2 is set in the first byte. Nothing is random. */
char *gen_random_mac(const char *text, int n);

/* Returns:   the address in dotted form, static. */
char *ip_ntoa(uint32_t addr);

/*
 * Counts the first ones of an IPv4 netmask of four dotted numbers. Bits after the first zero do not
 * count: 255.0.255.0 is 8.
 *
 * Returns:   0 to 32; -1 if `mask` is no such address.
 */
int parse_netmask_string(const char *mask);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
