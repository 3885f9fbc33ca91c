// What the first message decides: destination, name and identity; and log_open before and after it.
#include "tests/log/scene.h"

#include <sys/prctl.h>
#include <syslog.h>

#include <set>

using namespace log_tests;

// The compiler warns of %m, which is not ISO C++; it is what some of these tests are about.
#pragma GCC diagnostic ignored "-Wformat"

TEST(log_first_message, without_log_open_goes_to_the_terminal_that_there_is)
{
	scene s;
	terminal t;
	child_result result = s.log([&t] {
		t.become_stdout();
		_log(LOG_ERR, "error\n");
		_log(LOG_INFO, "information\n");
	});
	EXPECT_EQ(result.err, "error\n");
	EXPECT_EQ(t.text(), "information\n");
	EXPECT_EQ(s.syslog(), lines());
	EXPECT_EQ(s.kmsg(), "");
}

TEST(log_first_message, without_log_open_and_terminal_goes_to_syslog_as_a_daemon_under_the_process_name)
{
	scene s;
	child_result result = s.log([] {
		_log(LOG_ERR, "error\n");
		_log(LOG_INFO, "information\n");
	});
	EXPECT_EQ(s.syslog(), (lines{"<27>daemon: error\n", "<30>daemon: information\n"}));
	EXPECT_EQ(result.out + result.err, "");
	EXPECT_EQ(s.kmsg(), "");
	EXPECT_EQ(s.console(), "");
}

TEST(log_first_message, looks_at_descriptor_1_only)
{
	scene s;
	terminal t;
	s.log([&t] {
		dup2(t.slave.get(), STDIN_FILENO);
		dup2(t.slave.get(), STDERR_FILENO);
		_log(LOG_ERR, "error\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<27>daemon: error\n"});
	EXPECT_EQ(t.text(), "");
}

TEST(log_first_message, decides_a_negative_mask_and_facility_of_log_open)
{
	scene s;
	s.log([] {
		log_open(-1, -1, nullptr);
		_log(LOG_ERR, "error\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<27>daemon: error\n"});
	terminal t;
	child_result result = s.log([&t] {
		log_open(INT32_MIN, INT32_MIN, nullptr);
		t.become_stdout();
		_log(LOG_ERR, "error\n");
	});
	EXPECT_EQ(result.err, "error\n");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_first_message, decides_the_facility_apart_from_the_mask)
{
	scene s;
	s.log([] {
		log_open(LOG_DEST_SYSLOG, -1, "foo");
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<30>foo: x\n"});
	terminal t;
	s.log([&t] {
		t.become_stdout();
		log_open(LOG_DEST_SYSLOG, -1, "foo");
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<14>foo: x\n"});
	s.log([] {
		log_open(-1, LOG_LOCAL7, "foo");
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<190>foo: x\n"});
}

TEST(log_first_message, takes_the_kernel_facility_for_one_that_was_given)
{
	// It is 0, and the C library reads 0 in a priority, not in openlog, as "none".
	scene s;
	s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_KERN, "foo");
		_log(LOG_INFO, "x\n");
	});
	lines datagrams = s.syslog();
	s.log([] {
		openlog("foo", 0, LOG_KERN);
		syslog(6, "x\n");
	});
	EXPECT_EQ(datagrams, s.syslog());
	EXPECT_EQ(datagrams.size(), 1u);
}

TEST(log_first_message, decides_once)
{
	scene s;
	terminal t;
	child_result result = s.log([&t] {
		int out = dup(STDOUT_FILENO);
		t.become_stdout();
		_log(LOG_ERR, "on a terminal\n");
		dup2(out, STDOUT_FILENO);
		close(out);
		_log(LOG_ERR, "on none\n");
	});
	EXPECT_EQ(result.err, "on a terminal\non none\n");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_open, only_stores)
{
	scene s;
	s.use_real_proc();
	s.log([] {
		std::set<int> before = support::open_descriptors();
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		EXPECT_EQ(support::open_descriptors(), before);
		log_open(LOG_DEST_KMSG, LOG_DAEMON, "last");
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>last: x\n");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(log_open, borrows_the_identity)
{
	scene s;
	child_result result = s.log([] {
		static char ident[] = "old";
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_USER, ident);
		memcpy(ident, "new", 3);
		_log(LOG_INFO, "x\n");
		memcpy(ident, "red", 3);
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>new: x\n<6>red: y\n");
	EXPECT_EQ(result.out, "new: x\nred: y\n");
	EXPECT_EQ(s.syslog(), (lines{"<14>new: x\n", "<14>red: y\n"}));
}

TEST(log_open, called_later_moves_all_but_the_identity_and_facility_of_syslog)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG, LOG_LOCAL0, "first");
		_log(LOG_INFO, "x\n");
		log_open(LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_LOCAL1, "second");
		_log(LOG_INFO, "y\n");
		log_open(LOG_DEST_KMSG, LOG_LOCAL1, "third");
		_log(LOG_INFO, "z\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>first: x\n<6>third: z\n");
	EXPECT_EQ(result.out, "second: y\n");
	EXPECT_EQ(s.syslog(), (lines{"<134>first: x\n", "<134>first: y\n"}));
}

TEST(log_open, that_adds_syslog_later_gets_the_c_librarys_name_and_facility)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_LOCAL0, "foo");
		_log(LOG_INFO, "x\n");
		log_open(LOG_DEST_SYSLOG, LOG_LOCAL0, "foo");
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(result.out, "foo: x\n");
	EXPECT_EQ(s.syslog(), lines{"<14>" + program() + ": y\n"});
}

TEST(log_open, called_later_without_an_identity_leaves_bare_lines)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_USER, nullptr);
		_log(LOG_INFO, "x\n");
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_USER, nullptr);
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>daemon: x\n<6>y\n");
	EXPECT_EQ(result.out, "daemon: x\ny\n");
}

TEST(log_open, called_later_with_a_negative_mask_means_every_destination)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_USER, "foo");
		_log(LOG_INFO, "x\n");
		log_open(-1, -1, "bar");
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>bar: y\n");
	EXPECT_EQ(result.out, "bar: y\n");
	EXPECT_EQ(s.syslog(), (lines{"<14>foo: x\n", "<14>foo: y\n"}));
}

TEST(log_open, called_later_takes_a_negative_mask_for_its_bits)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_SYSLOG, LOG_USER, "foo");
		_log(LOG_INFO, "x\n");
		log_open(~LOG_DEST_SYSLOG, LOG_USER, "bar");
		_log(LOG_INFO, "y\n");
		log_open(INT32_MIN, LOG_USER, "baz");
		_log(LOG_INFO, "z\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>bar: y\n");
	EXPECT_EQ(result.out, "bar: y\n");
	EXPECT_EQ(s.syslog(), lines{"<14>foo: x\n"});
}

// The identity

TEST(log_identity, is_missing_on_the_standard_streams_alone)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		_log(LOG_INFO, "x\n");
		// Too late: that was decided.
		log_open(LOG_DEST_STDIO | LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(result.out, "x\ny\n");
	EXPECT_EQ(s.kmsg(), "<6>y\n");
}

TEST(log_identity, given_to_log_open_stands_on_the_standard_streams)
{
	scene s;
	terminal t;
	child_result result = s.log([&t] {
		t.become_stdout();
		log_open(-1, -1, "foo");
		_log(LOG_ERR, "x\n");
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(result.err, "foo: x\n");
	EXPECT_EQ(t.text(), "foo: y\n");
}

TEST(log_identity, is_the_processs_name_with_any_other_destination)
{
	for (int mask : {LOG_DEST_KMSG, LOG_DEST_SYSLOG, LOG_DEST_KMSG | LOG_DEST_SYSLOG,
		     LOG_DEST_KMSG | LOG_DEST_STDIO, LOG_DEST_SYSLOG | LOG_DEST_STDIO,
		     LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO}) {
		scene s;
		child_result result = s.log([mask] {
			log_open(mask, LOG_USER, nullptr);
			_log(LOG_INFO, "x\n");
		});
		EXPECT_EQ(s.kmsg(), mask & LOG_DEST_KMSG ? "<6>daemon: x\n" : "");
		EXPECT_EQ(result.out, mask & LOG_DEST_STDIO ? "daemon: x\n" : "");
		EXPECT_EQ(s.syslog(), mask & LOG_DEST_SYSLOG ? lines{"<14>daemon: x\n"} : lines());
	}
}

TEST(log_identity, comes_from_the_real_status_of_the_process)
{
	scene s;
	s.use_real_proc();
	s.log([] {
		prctl(PR_SET_NAME, "ap daemon");
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.syslog(), lines{"<30>ap daemon: x\n"});
}

TEST(log_identity, is_read_once)
{
	scene s;
	s.use_real_proc();
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		prctl(PR_SET_NAME, "early");
		_log(LOG_INFO, "x\n");
		prctl(PR_SET_NAME, "late");
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>early: x\n<6>early: y\n");
}

TEST(log_identity, is_the_second_token_of_the_first_name_line)
{
	struct {
		std::string status, prefix;
	} const cases[] = {
		{"Name:\tplain\n", "plain: "},
		{"Name:\twith spaces in it\n", "with spaces in it: "},
		{"Name:\t\t\ttabs\n", "tabs: "},
		{"Name:\tone\ttwo\n", "one: "},
		{"Name:\tno end", "no end: "},
		{"Umask:\t0022\nState:\tR (running)\nName:\tthird line\n", "third line: "},
		{"Name:\tfirst\nName:\tsecond\n", "first: "},
		{"name:\tlower\nName:\tright\n", "right: "},
		{" Name:\tindented\nName:\tright\n", "right: "},
		{"Name: x\tafter a blank\n", "after a blank: "},
		{"Name:x\n", ""},               // one token
		{"Name:\n", ""},                // one token
		{"Name:\t\n", ""},              // one token
		{"Name:\nName:\tsecond\n", ""}, // the first such line is the one
		{"Name\tno colon\n", ""},
		{"Umask:\t0022\n", ""},
		{"\n\n", ""},
		{"", ""},
	};
	for (const auto &[status, prefix] : cases) {
		scene s;
		s.set_status(status);
		s.log([] {
			log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
			_log(LOG_INFO, "x\n");
		});
		EXPECT_EQ(s.kmsg(), "<6>" + prefix + "x\n") << "of " << status;
	}
}

TEST(log_identity, is_cut_where_the_line_exceeds_63_characters)
{
	scene s;
	const std::string name(100, 'n');
	s.set_status("Name:\t" + name + "\nName:\tsecond\n");
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>" + name.substr(0, 57) + ": x\n");
}

TEST(log_identity, is_found_behind_a_long_line)
{
	for (size_t length : {62, 63, 64, 65, 126, 127, 500}) {
		scene s;
		s.set_status("Groups:" + std::string(length - 7, ' ') + "\nName:\tbehind\n");
		s.log([] {
			log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
			_log(LOG_INFO, "x\n");
		});
		EXPECT_EQ(s.kmsg(), "<6>behind: x\n") << "length " << length;
	}
}

TEST(log_identity, is_taken_from_a_later_63_characters_of_a_long_line_too)
{
	scene s;
	s.set_status(std::string(63, 'x') + "Name:\tinside\nName:\tbehind\n");
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(LOG_INFO, "x\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>inside: x\n");
}

TEST(log_identity, without_a_status_file_is_none)
{
	scene s;
	s.drop_status();
	s.log([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG, LOG_USER, nullptr);
		int free_before = lowest_free_descriptor();
		_log(LOG_INFO, "x\n");
		EXPECT_LE(lowest_free_descriptor(), free_before + 1); // the C library's connection to syslog
	});
	EXPECT_EQ(s.kmsg(), "<6>x\n");
	EXPECT_EQ(s.syslog(), lines{"<14>" + program() + ": x\n"});
}

TEST(log_identity, in_a_status_that_cannot_be_read_is_none)
{
	scene s;
	s.make_status_a_directory();
	s.log([] {
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		int free_before = lowest_free_descriptor();
		errno = EACCES;
		_log(LOG_INFO, "x %m\n");
		EXPECT_EQ(errno, EACCES);
		EXPECT_EQ(lowest_free_descriptor(), free_before);
	});
	EXPECT_EQ(s.kmsg(), "<6>x Permission denied\n");
}

TEST(log_identity, leaves_the_status_closed_whether_found_or_not)
{
	for (const char *status : {"Name:\tfound\n", "Umask:\t0022\n", "Name:\n"}) {
		scene s;
		s.set_status(status);
		s.log([] {
			log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
			int free_before = lowest_free_descriptor();
			_log(LOG_INFO, "x\n");
			EXPECT_EQ(lowest_free_descriptor(), free_before);
		});
	}
}
