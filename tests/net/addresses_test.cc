// Addresses and netmasks in one form made from the other.
#include "lib/net.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <limits.h>
#include <sys/mman.h>

#include <optional>

#include <gmock/gmock.h>

#include "tests/net/net.h"

using namespace net_support;

namespace
{

// Read before any test has changed it.
const std::string mac_at_start = mac_ntoa(mac_aton("zz"));

// ---- MAC addresses as text and in binary ----

// Reads a number of an address by the documented rules, without strtol. A value that is no byte is below 0 or
// above 255.
std::optional<int> read_hex_number(const std::string &text, size_t *at)
{
	size_t place = *at;
	auto peek = [&](size_t ahead = 0) {
		return place + ahead < text.size() ? text[place + ahead] : '\0';
	};
	while (peek() && strchr(" \t\n\v\f\r", peek()))
		place++;
	bool negative = peek() == '-';
	if (peek() == '-' || peek() == '+')
		place++;
	if (peek() == '0' && (peek(1) == 'x' || peek(1) == 'X') && isxdigit(peek(2)))
		place += 2;
	size_t first_digit = place;
	int value = 0;
	for (; isxdigit(peek()); place++)
		value = std::min(
			value * 16 + (isdigit(peek()) ? peek() - '0' : tolower(peek()) - 'a' + 10), 256);
	if (place == first_digit)
		return std::nullopt;
	*at = place;
	return negative ? -value : value;
}

void read_as_documented(const std::string &text, mac_bytes *mac)
{
	size_t at = 0;
	for (size_t index = 0; index < mac->size(); ++index) {
		std::optional<int> value = read_hex_number(text, &at);
		if (!value || *value < 0 || *value > 255)
			return;
		if (index < 5 && (at >= text.size() || text[at] != ':'))
			return;
		(*mac)[index] = static_cast<unsigned char>(*value);
		at++;
	}
}

// A text whose terminator is the last byte before memory that must not be touched.
class guarded_text
{
	size_t page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	char *pages_ = static_cast<char *>(
		mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));

public:
	guarded_text() { EXPECT_EQ(mprotect(pages_ + page_, page_, PROT_NONE), 0); }
	guarded_text(const guarded_text &) = delete;
	guarded_text &operator=(const guarded_text &) = delete;
	~guarded_text() { munmap(pages_, 2 * page_); }
	const char *operator()(const std::string &text)
	{
		char *place = pages_ + page_ - text.size() - 1;
		memcpy(place, text.c_str(), text.size() + 1);
		return place;
	}
};

std::string mutated(std::string text)
{
	static const std::string characters = "0123456789abcdefABCDEFxX:::+- \tgG.\xff";
	for (unsigned changes = numbers() % 4; changes > 0; --changes) {
		size_t place = numbers() % (text.size() + 1);
		char character = characters[numbers() % characters.size()];
		switch (numbers() % 4) {
		case 0:
			text.insert(place, 1, character);
			break;
		case 1:
			text = text.substr(0, place);
			break;
		case 2:
			text.erase(place, 1);
			break;
		default:
			if (place < text.size())
				text[place] = character;
		}
	}
	return text;
}

const mac_bytes previous = {0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0xf5};

// The buffer's content after reading `text`, when it held `previous` before.
mac_bytes read_after_previous(const std::string &text)
{
	mac_aton("a0:b1:c2:d3:e4:f5");
	return bytes_at(mac_aton(text.c_str()));
}

// `previous` with the first of its bytes replaced.
mac_bytes previous_but(std::initializer_list<unsigned char> first)
{
	mac_bytes mac = previous;
	std::copy(first.begin(), first.end(), mac.begin());
	return mac;
}

TEST(mac_aton_test, begins_with_zeros)
{
	EXPECT_EQ(mac_at_start, "00:00:00:00:00:00");
}

TEST(mac_aton_test, reads_what_mac_ntoa_and_iface_mac_write)
{
	for (int round = 0; round < 1000; ++round) {
		mac_bytes mac = random_mac();
		EXPECT_EQ(bytes_at(mac_aton(mac_text(mac).c_str())), mac);
		EXPECT_EQ(bytes_at(mac_aton(upper_text_of(mac).c_str())), mac);
		EXPECT_EQ(bytes_at(mac_aton(mac_ntoa(mac.data()))), mac);
	}
}

TEST(mac_aton_test, reads_every_value_in_every_place)
{
	for (size_t index = 0; index < 6; ++index)
		for (int value = 0; value < 256; ++value) {
			mac_bytes mac = previous;
			mac[index] = static_cast<unsigned char>(value);
			EXPECT_EQ(read_after_previous(mac_text(mac)), mac);
		}
}

TEST(mac_aton_test, always_gives_the_same_buffer)
{
	unsigned char *mac = mac_aton("00:11:22:33:44:55");
	EXPECT_EQ(mac_aton("zz"), mac);
	EXPECT_EQ(mac_aton("66:77:88:99:aa:bb"), mac);
	EXPECT_EQ(bytes_at(mac), (mac_bytes{0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb}));
}

TEST(mac_aton_test, stores_nothing_of_a_text_without_a_number)
{
	for (const char *text :
		{"", "zz", ":", "::::::", "g0:11:22:33:44:55", "-", "+", " ", "x1:2:3:4:5:6", "- 1:2"})
		EXPECT_EQ(read_after_previous(text), previous) << text;
}

TEST(mac_aton_test, keeps_the_bytes_from_the_first_malformed_one_on)
{
	EXPECT_EQ(read_after_previous("01"), previous);
	EXPECT_EQ(read_after_previous("01:"), previous_but({1}));
	EXPECT_EQ(read_after_previous("01:02"), previous_but({1}));
	EXPECT_EQ(read_after_previous("01:02:"), previous_but({1, 2}));
	EXPECT_EQ(read_after_previous("01:02:xx:04:05:06"), previous_but({1, 2}));
	EXPECT_EQ(read_after_previous("01:02:03:04:"), previous_but({1, 2, 3, 4}));
	EXPECT_EQ(read_after_previous("01:02:03:04:05"), previous_but({1, 2, 3, 4}));
	EXPECT_EQ(read_after_previous("01:02:03:04:05:"), previous_but({1, 2, 3, 4, 5}));
	EXPECT_EQ(read_after_previous("01:02:03:04:05:zz"), previous_but({1, 2, 3, 4, 5}));
	EXPECT_EQ(read_after_previous("01::03:04:05:06"), previous_but({1}));
}

TEST(mac_aton_test, stops_where_another_character_than_a_colon_follows)
{
	for (const char *other : {"-", ".", " ", " :", "", "g", ";", "\n"}) {
		EXPECT_EQ(read_after_previous(std::string("01") + other + "02:03:04:05:06"), previous)
			<< other;
		EXPECT_EQ(read_after_previous(std::string("1:2:3:4:05") + other + "g6"),
			previous_but({1, 2, 3, 4}))
			<< other;
	}
}

TEST(mac_aton_test, stops_at_a_number_of_256_or_more)
{
	EXPECT_EQ(read_after_previous("ff:100:3:4:5:6"), previous_but({0xff}));
	EXPECT_EQ(read_after_previous("1:2:3:4:5:100"), previous_but({1, 2, 3, 4, 5}));
	for (const char *number : {"100", "101", "fff", "7fffffff", "80000000", "ffffffff", "100000000",
		     "100000001", "7fffffffffffffff", "8000000000000000", "ffffffffffffffff",
		     "10000000000000001", "ffffffffffffffffffffffffffffffffff"})
		EXPECT_EQ(read_after_previous(std::string(number) + ":2:3:4:5:6"), previous) << number;
}

TEST(mac_aton_test, stops_at_a_number_below_0)
{
	for (const char *number : {"-1", "-ff", "-100", "-7fffffff", "-80000000", "-ffffffff", "-0xff",
		     "-8000000000000000", "-ffffffffffffffffffffffff"})
		EXPECT_EQ(read_after_previous(std::string(number) + ":2:3:4:5:6"), previous) << number;
	EXPECT_EQ(read_after_previous("-0:2:3:4:5:6"), (mac_bytes{0, 2, 3, 4, 5, 6}));
}

TEST(mac_aton_test, accepts_what_strtol_accepts)
{
	const mac_bytes expected = {1, 2, 3, 4, 5, 6};
	for (const char *text :
		{"1:2:3:4:5:6", " 1: 2:\t3:\n4:\v5:\f\r6", "+1:+2:+3:+4:+5:+6", "0x1:0X2:0x3:4:5:0x06",
			" +0x1:2:3:4:5:6", "001:0002:3:4:5:00000000000000000000000000006"})
		EXPECT_EQ(read_after_previous(text), expected) << text;
	EXPECT_EQ(read_after_previous("0x:2:3:4:5:6"), previous) << "the number is 0, and no colon follows";
	EXPECT_EQ(read_after_previous("1:2:3:4:5:0x"), previous_but({1, 2, 3, 4, 5, 0}));
}

TEST(mac_aton_test, does_not_look_behind_the_sixth_number)
{
	for (const char *rest : {":", ":07", " ", "\n", "-", "zz", ",02:03"})
		EXPECT_EQ(read_after_previous(std::string("01:02:03:04:05:06") + rest),
			(mac_bytes{1, 2, 3, 4, 5, 6}))
			<< rest;
}

TEST(mac_aton_test, reads_any_text_as_documented_and_nothing_behind_it)
{
	guarded_text guarded;
	mac_bytes expected = previous;
	mac_aton(mac_text(previous).c_str());
	for (int round = 0; round < 20'000; ++round) {
		std::string text = mutated(mac_text(random_mac()));
		read_as_documented(text, &expected);
		ASSERT_EQ(bytes_at(mac_aton(guarded(text))), expected) << text;
	}
}

TEST(mac_ntoa_test, writes_upper_case_with_colons)
{
	const unsigned char mac[6] = {0x00, 0xab, 0xcd, 0xef, 0x0a, 0x01};
	EXPECT_STREQ(mac_ntoa(mac), "00:AB:CD:EF:0A:01");
}

TEST(mac_ntoa_test, writes_every_value_in_every_place)
{
	for (size_t index = 0; index < 6; ++index)
		for (int value = 0; value < 256; ++value) {
			mac_bytes mac = previous;
			mac[index] = static_cast<unsigned char>(value);
			char digits[3];
			snprintf(digits, sizeof(digits), "%02X", static_cast<unsigned>(value));
			EXPECT_EQ(mac_ntoa(mac.data()),
				std::string("A0:B1:C2:D3:E4:F5").replace(index * 3, 2, digits));
		}
}

TEST(mac_ntoa_test, always_gives_the_same_buffer)
{
	char *text = mac_ntoa(previous.data());
	const unsigned char zeros[6] = {};
	EXPECT_EQ(mac_ntoa(zeros), text);
	EXPECT_STREQ(text, "00:00:00:00:00:00");
}

// ---- Derived addresses ----

// The address `n` steps from `mac`, computed in wide integers and wrapped at the end.
mac_bytes stepped(mac_bytes mac, int n)
{
	auto low_bits = [](int64_t value) { return static_cast<unsigned char>(((value % 256) + 256) % 256); };
	mac[4] = low_bits(int64_t{mac[4]} + n / 256);
	mac[5] = low_bits(int64_t{mac[5]} + n);
	return mac;
}

std::vector<int> steps()
{
	std::vector<int> all = {INT_MIN, INT_MIN + 1, INT_MIN + 255, INT_MIN + 256, INT_MIN + 257, INT_MAX,
		INT_MAX - 1, INT_MAX - 255, INT_MAX - 256};
	for (int n = -600; n <= 600; ++n)
		all.push_back(n);
	for (int n = -65536 - 3; n <= 65536 + 3; n += 251)
		all.push_back(n);
	for (int count = 0; count < 500; ++count)
		all.push_back(static_cast<int>(numbers()));
	return all;
}

TEST(add_mac_test, carries_nothing_out_of_the_sixth_byte)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:ff", 1), "00:11:22:33:44:00");
	EXPECT_STREQ(add_mac("00:11:22:33:44:f0", 32), "00:11:22:33:44:10");
	EXPECT_STREQ(add_mac("ff:ff:ff:ff:ff:ff", 1), "FF:FF:FF:FF:FF:00");
}

TEST(add_mac_test, borrows_nothing_for_the_sixth_byte)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:00", -1), "00:11:22:33:44:FF");
	EXPECT_STREQ(add_mac("00:11:22:33:00:00", -255), "00:11:22:33:00:01");
}

TEST(add_mac_test, adds_the_256th_part_to_the_fifth_byte)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:00", 256), "00:11:22:33:45:00");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", 255), "00:11:22:33:44:04");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", 513), "00:11:22:33:46:06");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", -256), "00:11:22:33:43:05");
	EXPECT_STREQ(add_mac("00:11:22:33:44:05", -257), "00:11:22:33:43:04");
	EXPECT_STREQ(add_mac("00:11:22:33:ff:05", 256), "00:11:22:33:00:05");
	EXPECT_STREQ(add_mac("00:11:22:33:00:05", -256), "00:11:22:33:FF:05");
}

TEST(add_mac_test, is_the_address_itself_for_a_step_of_0)
{
	EXPECT_STREQ(add_mac("00:11:22:ab:cd:ef", 0), "00:11:22:AB:CD:EF");
}

TEST(add_mac_test, is_exact_at_the_ends_of_the_range_of_steps)
{
	EXPECT_STREQ(
		add_mac("00:11:22:33:44:55", INT_MAX), "00:11:22:33:43:54"); // 0x7fffff and 0x7fffffff more
	EXPECT_STREQ(
		add_mac("00:11:22:33:44:55", INT_MIN), "00:11:22:33:44:55"); // 0x800000 and 0x80000000 less
	EXPECT_STREQ(add_mac("00:11:22:33:44:55", INT_MIN + 1), "00:11:22:33:45:56");
	EXPECT_STREQ(add_mac("00:11:22:33:00:00", INT_MAX), "00:11:22:33:FF:FF");
}

TEST(add_mac_test, never_changes_the_first_four_bytes)
{
	for (int n : steps()) {
		mac_bytes mac = random_mac();
		EXPECT_EQ(std::string(add_mac(mac_text(mac).c_str(), n)).substr(0, 11),
			upper_text_of(mac).substr(0, 11));
	}
}

TEST(add_mac_test, makes_every_step_from_every_address)
{
	for (int n : steps())
		for (int round = 0; round < 4; ++round) {
			mac_bytes mac = random_mac();
			ASSERT_EQ(add_mac(mac_text(mac).c_str(), n), upper_text_of(stepped(mac, n)))
				<< mac_text(mac) << " " << n;
		}
}

TEST(add_mac_test, returns_the_buffer_of_mac_ntoa)
{
	char *text = mac_ntoa(previous.data());
	EXPECT_EQ(add_mac("00:11:22:33:44:55", 1), text);
	EXPECT_EQ(gen_random_mac("00:11:22:33:44:55", 1), text);
	EXPECT_STREQ(text, "02:11:22:33:44:56");
}

TEST(add_mac_test, may_be_given_its_own_result)
{
	char *text = add_mac("00:11:22:33:44:55", 1);
	EXPECT_STREQ(add_mac(text, 1), "00:11:22:33:44:57");
	EXPECT_STREQ(gen_random_mac(text, 1), "02:11:22:33:44:58");
}

TEST(add_mac_test, goes_on_from_the_previous_result_where_the_text_is_malformed)
{
	EXPECT_STREQ(add_mac("00:11:22:33:44:55", 1), "00:11:22:33:44:56");
	EXPECT_STREQ(add_mac("zz", 1), "00:11:22:33:44:57");
	EXPECT_STREQ(add_mac("66:77:", 256), "66:77:22:33:45:57");
	EXPECT_STREQ(gen_random_mac("", 0), "66:77:22:33:45:57");
	EXPECT_STREQ(gen_random_mac("00:", 1), "02:77:22:33:45:58");
	EXPECT_STREQ(mac_ntoa(mac_aton("")), "02:77:22:33:45:58");
}

TEST(gen_random_mac_test, sets_the_bit_of_local_administration)
{
	EXPECT_STREQ(gen_random_mac("00:11:22:33:44:55", 0), "02:11:22:33:44:55");
	EXPECT_STREQ(gen_random_mac("02:11:22:33:44:55", 0), "02:11:22:33:44:55");
	EXPECT_STREQ(gen_random_mac("fc:11:22:33:44:ff", 1), "FE:11:22:33:44:00");
}

TEST(gen_random_mac_test, leaves_the_other_bits_of_the_first_byte)
{
	for (unsigned value = 0; value < 256; ++value) {
		mac_bytes mac = random_mac();
		mac[0] = static_cast<unsigned char>(value);
		mac_bytes expected = mac;
		expected[0] = static_cast<unsigned char>(value | 2);
		EXPECT_EQ(gen_random_mac(mac_text(mac).c_str(), 0), upper_text_of(expected));
	}
}

TEST(gen_random_mac_test, steps_as_add_mac_does)
{
	for (int n : steps()) {
		mac_bytes mac = random_mac();
		mac_bytes expected = stepped(mac, n);
		expected[0] |= 2;
		ASSERT_EQ(gen_random_mac(mac_text(mac).c_str(), n), upper_text_of(expected))
			<< mac_text(mac) << " " << n;
	}
}

TEST(gen_random_mac_test, is_the_same_each_time)
{
	std::string first = gen_random_mac("00:11:22:33:44:55", 77);
	for (int round = 0; round < 100; ++round)
		EXPECT_EQ(gen_random_mac("00:11:22:33:44:55", 77), first);
}

// ---- IPv4 addresses and netmasks ----

TEST(ip_ntoa_test, writes_the_bytes_in_the_order_of_the_network)
{
	for (const char *text : {"0.0.0.0", "1.2.3.4", "127.0.0.1", "192.168.1.20", "255.255.255.255"})
		EXPECT_STREQ(ip_ntoa(inet_addr(text)), text);
	EXPECT_STREQ(ip_ntoa(htonl(0x0a010203U)), "10.1.2.3");
	for (int round = 0; round < 1000; ++round) {
		uint32_t address = static_cast<uint32_t>(numbers());
		unsigned char bytes[4];
		memcpy(bytes, &address, sizeof(bytes));
		std::string expected = std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
				       std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
		EXPECT_EQ(ip_ntoa(address), expected);
	}
}

TEST(parse_netmask_string_test, is_the_length_of_each_prefix)
{
	for (int length = 0; length <= 32; ++length) {
		uint32_t mask = length == 0 ? 0 : ~uint32_t{0} << (32 - length);
		EXPECT_EQ(parse_netmask_string(ip_ntoa(htonl(mask))), length);
	}
	EXPECT_EQ(parse_netmask_string("255.255.255.0"), 24);
	EXPECT_EQ(parse_netmask_string("0.0.0.0"), 0);
	EXPECT_EQ(parse_netmask_string("255.255.255.255"), 32);
	EXPECT_EQ(parse_netmask_string("128.0.0.0"), 1);
}

TEST(parse_netmask_string_test, does_not_look_behind_the_first_zero_bit)
{
	EXPECT_EQ(parse_netmask_string("255.0.255.0"), 8);
	EXPECT_EQ(parse_netmask_string("0.255.255.255"), 0);
	EXPECT_EQ(parse_netmask_string("127.255.255.255"), 0);
	EXPECT_EQ(parse_netmask_string("255.255.255.253"), 30);
	EXPECT_EQ(parse_netmask_string("254.1.1.1"), 7);
	for (int round = 0; round < 1000; ++round) {
		uint32_t mask = static_cast<uint32_t>(numbers()) | ~uint32_t{0} << numbers() % 32;
		int length = 0;
		while (length < 32 && mask >> (31 - length) & 1)
			length++;
		EXPECT_EQ(parse_netmask_string(ip_ntoa(htonl(mask))), length);
	}
}

TEST(parse_netmask_string_test, refuses_what_is_no_address_in_dotted_form)
{
	for (const char *mask : {"garbage", "", " ", "24", "/24", "255", "255.255.255", "255.255.255.",
		     ".255.255.255", "255.255.255.256", "255.255.255.0.0", "255.255.255.0/24",
		     " 255.255.255.0", "255.255.255.0 ", "255.255.255.0\n", "0xff.0.0.0", "-1.0.0.0",
		     "+1.0.0.0", "255,255,255,0", "255..255.0", "ff.ff.ff.0", "::", "::ffff:255.255.255.0",
		     "4294967040", "255.255.255.1000", "255.255.255.0x"})
		EXPECT_EQ(parse_netmask_string(mask), -1) << mask;
}

} // namespace
