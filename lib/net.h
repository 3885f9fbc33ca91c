/*
 * net - addresses of interfaces and radios; MAC and IPv4 addresses as text and in binary.
 *
 * A MAC address is 6 bytes in the order in which they are sent, or 17 characters, two hexadecimal digits
 * a byte with colons between. An IPv4 address is a number in network byte order. Text is never null.
 * One thread: mac_aton, mac_ntoa, add_mac, gen_random_mac and ip_ntoa return memory of the process's own
 * that the next call of any of them may overwrite; copy what is to be kept.
 */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * The MAC address of a network interface; of its name 15 characters count. It is the first 6 bytes of
 * whatever hardware address there is: those of the loopback are zeros. Asking needs the right to open a
 * raw socket (CAP_NET_RAW). Nothing is logged.
 *
 * iface_mac returns lower-case text that the caller frees, or null; exhausted memory ends the process.
 * iface_mac_binary writes 6 bytes and returns 0, or leaves `mac` as it is and returns -1.
 */
char *iface_mac(const char *ifname);
int iface_mac_binary(const char *ifname, unsigned char mac[6]) __attribute__((warn_unused_result));

/*
 * The first address of a wireless PHY ("phy0"), as the kernel writes it in
 * /sys/class/ieee80211/<phy>/addresses: the file's first line.
 *
 * Returns text that the caller frees, or null, which is logged unless there is just no memory for the
 * text. A path of more than 4096 characters is refused; one of exactly 4096 is tried without
 * its last character.
 */
char *get_radio_mac(const char *phy);

/*
 * The first IPv4 address of a network interface; of its name 15 characters count. Asking needs the right
 * to open a packet socket (CAP_NET_RAW). All ones (0xFFFFFFFF) on failure and for an interface without
 * an address, which one with the address 255.255.255.255 cannot be told from. Nothing is logged.
 */
uint32_t get_iface_ip(const char *ifname);

/*
 * Reads a MAC address: up to six hexadecimal numbers below 256 with a colon behind each of the first five;
 * anything may follow the sixth. A number may have what strtol accepts before it: blanks, a sign, "0x".
 *
 * Returns: 6 bytes of the process's own. There is no error: reading stops at the first byte
 *          that is not as above, and from there on the bytes are what they were before (zeros at first).
 */
unsigned char *mac_aton(const char *text);

/* The 6 bytes at `mac` as upper-case text of the process's own. */
char *mac_ntoa(const unsigned char *mac);

/*
 * The address `n` steps from that in `text`, as mac_ntoa writes it. Nothing is carried: the
 * sixth byte becomes itself + n, the fifth itself + n / 256 (towards zero), both modulo 256, so that
 * 00:11:22:33:44:ff and 1 make 00:11:22:33:44:00. `text` is read by mac_aton, and the result's bytes
 * stay in its buffer.
 */
char *add_mac(const char *text, int n);

/* As add_mac, as a locally administered address: 2 is set in the first byte. Nothing is random. */
char *gen_random_mac(const char *text, int n);

/* The address in dotted form, in the C library's own memory. */
char *ip_ntoa(uint32_t addr);

/*
 * The length of the prefix that an IPv4 netmask of four dotted numbers stands for, 0 to 32: how many of
 * its first bits are ones. The bits behind the first zero are not looked at: 255.0.255.0 is 8. -1 if it
 * is no such address.
 */
int parse_netmask_string(const char *mask);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
