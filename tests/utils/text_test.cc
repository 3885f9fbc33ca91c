// The checks of JSON and hex text.
#include "tests/utils/fixture.h"

#include <limits.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/interposed.h"

using namespace support;
using namespace utils_tests;

// Each element that the library fetches from an array of JSON comes through here.
static constinit interposed<json_t *(const json_t *, size_t)> fetched_element{"json_array_get"};

extern "C" json_t *json_array_get(const json_t *array, size_t index)
{
	return fetched_element(array, index);
}

// ---- JSON ----

namespace
{

using json_owner = std::unique_ptr<json_t, void (*)(json_t *)>;

json_owner parsed(const std::string &text)
{
	json_t *value = json_loads(text.c_str(), JSON_DECODE_ANY, nullptr);
	EXPECT_NE(value, nullptr) << text;
	return json_owner(value, json_decref);
}

int check(const std::string &text, json_type type)
{
	return json_array_elements_type_check(parsed(text).get(), type);
}

const struct {
	json_type type;
	const char *text;
} json_values[] = {{JSON_OBJECT, "{\"a\": [1]}"}, {JSON_ARRAY, "[1, \"a\"]"}, {JSON_STRING, "\"text\""},
	{JSON_INTEGER, "1"}, {JSON_REAL, "1.0"}, {JSON_TRUE, "true"}, {JSON_FALSE, "false"},
	{JSON_NULL, "null"}};

using json_array_elements_type_check_test = testing::Test;

} // namespace

TEST_F(json_array_elements_type_check_test, holds_if_all_elements_have_the_type)
{
	EXPECT_EQ(check("[\"a\", \"b\"]", JSON_STRING), 1);
	for (const auto &value : json_values)
		for (const auto &asked : json_values) {
			std::string one = value.text;
			EXPECT_EQ(check("[" + one + "]", asked.type), value.type == asked.type) << one;
			EXPECT_EQ(check("[" + one + "," + one + "," + one + "]", asked.type),
				value.type == asked.type)
				<< one;
		}
}

TEST_F(json_array_elements_type_check_test, fails_for_one_other_element_anywhere)
{
	EXPECT_EQ(check("[\"a\", 1]", JSON_STRING), 0);
	for (const auto &value : json_values)
		for (const auto &other : json_values)
			for (int place = 0; place < 4 && value.type != other.type; ++place) {
				std::string text;
				for (int index = 0; index < 4; ++index)
					text += std::string(index ? "," : "[") +
						(index == place ? other.text : value.text);
				EXPECT_EQ(check(text + "]", value.type), 0) << text;
			}
}

TEST_F(json_array_elements_type_check_test, holds_for_an_empty_array)
{
	for (const auto &asked : json_values)
		EXPECT_EQ(check("[]", asked.type), 1);
}

TEST_F(json_array_elements_type_check_test, fails_for_what_is_no_array)
{
	for (const auto &asked : json_values) {
		for (const auto &value : json_values)
			if (value.type != JSON_ARRAY) {
				EXPECT_EQ(check(value.text, asked.type), 0) << value.text;
			}
		EXPECT_EQ(check("{}", asked.type), 0);
		EXPECT_EQ(check("{\"0\": \"a\"}", asked.type), 0);
		EXPECT_EQ(json_array_elements_type_check(nullptr, asked.type), 0);
	}
}

TEST_F(json_array_elements_type_check_test, does_not_look_into_elements)
{
	EXPECT_EQ(check("[[1], [\"a\"], []]", JSON_ARRAY), 1);
	EXPECT_EQ(check("[[\"a\"], [\"b\"]]", JSON_STRING), 0);
}

TEST_F(json_array_elements_type_check_test, ends_well_where_no_element_can_be_fetched)
{
	json_owner array = parsed("[\"a\", \"b\", 3]");
	size_t left = 2; // elements that can be fetched
	auto fetched = fetched_element.replace([&](const json_t *from, size_t index) {
		return left == 0 ? nullptr : (left--, fetched_element.next(from, index));
	});
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_STRING), 1);
	left = 3;
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_STRING), 0);
}

TEST_F(json_array_elements_type_check_test, takes_no_reference)
{
	json_owner array = parsed("[\"a\", \"b\"]");
	json_t *element = json_array_get(array.get(), 0);
	json_array_elements_type_check(array.get(), JSON_STRING);
	json_array_elements_type_check(array.get(), JSON_TRUE);
	EXPECT_EQ(array->refcount, 1U);
	EXPECT_EQ(element->refcount, 1U);
}

TEST_F(json_array_elements_type_check_test, takes_arrays_of_any_length)
{
	json_owner array(json_array(), json_decref);
	for (int index = 0; index < 10'000; ++index)
		json_array_append_new(array.get(), json_integer(index));
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_INTEGER), 1);
	json_array_append_new(array.get(), json_real(1));
	EXPECT_EQ(json_array_elements_type_check(array.get(), JSON_INTEGER), 0);
}

// ---- Hex text ----

namespace
{

std::mt19937 numbers(20240607); // the same ones in every run

std::string hex_of(const std::vector<unsigned char> &bytes, const char *digits = "0123456789abcdef")
{
	std::string text;
	for (unsigned char byte : bytes)
		text += {digits[byte / 16], digits[byte % 16]};
	return text;
}

int spells(const std::string &hex, const std::vector<unsigned char> &bytes)
{
	return hex_bin_equal(hex.c_str(), bytes.data(), static_cast<int>(bytes.size()));
}

} // namespace

TEST(hex_bin_equal_test, holds_for_exactly_the_byte_that_is_spelt)
{
	for (unsigned spelt = 0; spelt < 256; ++spelt)
		for (unsigned byte = 0; byte < 256; ++byte)
			ASSERT_EQ(spells(hex_of({static_cast<unsigned char>(spelt)}),
					  {static_cast<unsigned char>(byte)}),
				spelt == byte)
				<< spelt << " " << byte;
}

TEST(hex_bin_equal_test, takes_lower_case_only)
{
	EXPECT_EQ(spells("0a", {0x0a}), 1);
	EXPECT_EQ(spells("0A", {0x0a}), 0);
	EXPECT_EQ(spells("aB", {0xab}), 0);
	EXPECT_EQ(spells("00FF", {0x00, 0xff}), 0);
	for (unsigned byte = 0; byte < 256; ++byte) {
		std::vector<unsigned char> bytes = {static_cast<unsigned char>(byte)};
		bool has_letters = byte % 16 > 9 || byte / 16 > 9;
		EXPECT_EQ(spells(hex_of(bytes, "0123456789ABCDEF"), bytes), !has_letters) << byte;
	}
}

TEST(hex_bin_equal_test, holds_for_no_bytes_and_an_empty_text)
{
	const unsigned char bin[] = {1};
	EXPECT_EQ(hex_bin_equal("", bin, 0), 1);
	EXPECT_EQ(hex_bin_equal("", nullptr, 0), 1);
	EXPECT_EQ(hex_bin_equal("0", bin, 0), 0);
	EXPECT_EQ(hex_bin_equal("01", bin, 0), 0);
}

TEST(hex_bin_equal_test, fails_for_every_other_length_of_the_text)
{
	const unsigned char bin[] = {0x12, 0x34, 0x56};
	for (const char *hex : {"", "1", "12", "123", "1234", "12345", "1234567", "12345678", "123456123456"})
		EXPECT_EQ(hex_bin_equal(hex, bin, 3), 0) << hex;
	EXPECT_EQ(hex_bin_equal("123456", bin, 3), 1);
	EXPECT_EQ(hex_bin_equal("123456", bin, 2), 0);
}

TEST(hex_bin_equal_test, fails_for_a_negative_length)
{
	const unsigned char bin[] = {0x12};
	for (int length : {-1, -2, INT_MIN, INT_MIN + 1, INT_MIN / 2})
		for (const char *hex : {"", "1", "12", "1234"})
			EXPECT_EQ(hex_bin_equal(hex, bin, length), 0) << length << " " << hex;
}

TEST(hex_bin_equal_test, is_exact_at_the_end_of_the_range_of_lengths)
{
	const unsigned char bin[] = {0x12};
	for (int length : {INT_MAX, INT_MAX - 1, 0x40000000, 0x40000001})
		for (const char *hex : {"", "1", "12", "1234"})
			EXPECT_EQ(hex_bin_equal(hex, bin, length), 0) << length << " " << hex;
}

TEST(hex_bin_equal_test, takes_no_blanks_separators_or_signs)
{
	for (const char *hex :
		{" 1", "1 ", "0x", "+1", "-1", "\n1", "1\n", ":1", "%1", "g1", "1g", "\xb1\xb1", "/1", "`1"})
		EXPECT_EQ(spells(hex, {0x01}), 0) << hex;
	EXPECT_EQ(spells("12:34", {0x12, 0x34}), 0);
	EXPECT_EQ(spells("0x1234", {0x12, 0x34}), 0);
	EXPECT_EQ(spells("12 34 ", {0x12, 0x34, 0x00}), 0);
}

TEST(hex_bin_equal_test, finds_a_difference_in_any_digit)
{
	std::vector<unsigned char> bytes(64);
	for (unsigned char &byte : bytes)
		byte = static_cast<unsigned char>(numbers());
	const std::string text = hex_of(bytes);
	EXPECT_EQ(spells(text, bytes), 1);
	for (size_t place = 0; place < text.size(); ++place)
		for (int value = 1; value < 256; ++value) {
			std::string other = text;
			other[place] = static_cast<char>(value);
			ASSERT_EQ(spells(other, bytes), other == text) << place << " " << value;
		}
}

TEST(hex_bin_equal_test, takes_zero_bytes_as_any_other)
{
	EXPECT_EQ(spells("000000", {0, 0, 0}), 1);
	EXPECT_EQ(spells("000001", {0, 0, 0}), 0);
	EXPECT_EQ(spells("610062", {'a', 0, 'b'}), 1);
}
