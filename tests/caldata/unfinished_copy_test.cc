// Copies that are interrupted, and copies made at the same time.
#include "lib/caldata.h"

#include <sys/file.h>
#include <sys/prctl.h>

#include "tests/caldata/caldata.h"

using namespace caldata_support;

namespace
{

struct bytes_of_copy {
	std::string flash = random_bytes(1300);
	std::string whole = std::string(flash).replace(6, 6, mac_bytes);
};

// Runs `body` in a process that is killed at the `nth` of its reads, writes and other calls. Returns whether it
// has come to its end before.
bool ends_before(int nth, const std::function<void()> &body)
{
	pid_t child = fork();
	if (child == 0) {
		int left = nth;
		auto step = [&] {
			if (left-- == 0)
				kill(getpid(), SIGKILL);
		};
		on_call = [&](const std::string &, const std::string &) { step(); };
		watch_transfers([&](const transfer &) { step(); }, body);
		_exit(0);
	}
	int status = -1;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFEXITED(status) || WTERMSIG(status) == SIGKILL) << status;
	return WIFEXITED(status);
}

TEST(caldata_export, killed_at_any_point_leaves_no_file_or_a_whole_one_and_the_next_call_finishes_it)
{
	on_bare_board([] {
		const bytes_of_copy bytes;
		make_flash(bytes.flash);
		int points = 0;
		size_t without_file = 0, with_file = 0;
		while (!ends_before(points, [] { patch_all("cal.bin", 1300); })) {
			(exists(firmware + "cal.bin") ? with_file : without_file)++;
			if (exists(firmware + "cal.bin")) {
				EXPECT_EQ(read_file(firmware + "cal.bin"), bytes.whole) << points;
				EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"}) << points;
			}
			EXPECT_EQ(patch_all("cal.bin", 1300), 0) << points;
			EXPECT_EQ(read_file(firmware + "cal.bin"), bytes.whole) << points;
			EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"}) << points;
			require(unlink((firmware + "cal.bin").c_str()) == 0, "the file");
			points++;
		}
		// Three chunks are read and written, and the address is written.
		EXPECT_GE(without_file, 7u + 2);
		EXPECT_GE(with_file, 1u);
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, is_on_the_medium_before_it_has_its_name_and_then_the_name_is)
{
	on_bare_board([] {
		make_flash(random_bytes(600));
		const std::string folder = std::filesystem::canonical(firmware).string();
		const std::string copy = folder + "/" + unfinished;
		std::vector<std::string> seen;
		on_call = [&](const std::string &call, const std::string &path) {
			if (call == "fsync" || call == "rename done")
				seen.push_back(call + " " + path);
		};
		auto note = [&](const transfer &each) {
			if (!each.is_read)
				seen.push_back("write " + each.path);
		};
		watch_transfers(note, [] { EXPECT_EQ(patch_all("cal.bin", 600), 0); });
		on_call = nullptr;
		EXPECT_EQ(seen,
			(std::vector<std::string>{"write " + copy, "write " + copy, "write " + copy,
				"fsync " + copy, "rename done " + firmware + unfinished, "fsync " + folder}));
	});
}

TEST(caldata_export, starts_anew_whatever_stands_in_the_place_of_its_copy)
{
	on_bare_board([] {
		make_flash("flash");
		const std::string copy = firmware + unfinished;
		make_file("/dev/other", "other");
		const std::function<int()> obstacles[] = {
			[&] { return write_file(copy, std::string(5000, 'x')) ? 0 : -1; },
			[&] { return symlink("/dev/other", copy.c_str()); },
			[&] { return symlink(unfinished.c_str(), copy.c_str()); },
			[&] { return mkfifo(copy.c_str(), 0600); },
			[&] { return mknod(copy.c_str(), S_IFSOCK | 0600, 0); }};
		for (const auto &put : obstacles) {
			require(put() == 0, "an obstacle");
			EXPECT_EQ(export_all("cal.bin", 5), 0);
			EXPECT_EQ(read_file(firmware + "cal.bin"), "flash");
			EXPECT_TRUE(std::filesystem::is_regular_file(
				std::filesystem::symlink_status(firmware + "cal.bin")));
			EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
			require(unlink((firmware + "cal.bin").c_str()) == 0, "the file");
		}
		EXPECT_EQ(read_file("/dev/other"), "other");
		EXPECT_EQ(messages, errors({}));
	});
}

TEST(caldata_export, does_not_write_to_another_file_that_its_leftover_is_a_link_to)
{
	on_bare_board([] {
		make_flash("flash");
		make_file(firmware + "other", "other");
		require(link((firmware + "other").c_str(), (firmware + unfinished).c_str()) == 0, "a link");
		EXPECT_EQ(export_all("cal.bin", 5), 0);
		EXPECT_EQ(read_file(firmware + "other"), "other");
	});
}

TEST(caldata_export, reports_what_stands_in_its_way_and_cannot_be_removed)
{
	on_bare_board([] {
		make_flash("flash");
		make_directory(firmware + unfinished);
		EXPECT_EQ(export_all("cal.bin", 5), -EISDIR);
		EXPECT_EQ(messages, errors({unable_to_open("/lib/firmware/cal.bin", EISDIR)}));
		EXPECT_EQ(names_in(firmware), std::set<std::string>{unfinished});
	});
}

TEST(caldata_export, replaces_the_copy_that_a_killed_process_left_of_another_file)
{
	on_bare_board([] {
		const bytes_of_copy bytes;
		make_flash(bytes.flash);
		EXPECT_FALSE(ends_before(5, [] { export_all("first.bin", 1300); }));
		EXPECT_EQ(names_in(firmware), std::set<std::string>{unfinished});
		EXPECT_EQ(export_all("second.bin", 1000), 0);
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"second.bin"});
		EXPECT_EQ(read_file(firmware + "second.bin"), bytes.flash.substr(0, 1000));
	});
}

// Two processes: the first stops in the middle of its copy until the second waits for it.
void export_at_the_same_time(const std::function<void()> &first, const std::function<void()> &second)
{
	pipe_pair in_the_middle, waiting;
	auto start = [&](const std::function<void()> &body) {
		pid_t child = fork();
		if (child == 0) {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			body();
			_exit(testing::Test::HasFailure() ? 1 : 0);
		}
		return child;
	};
	auto pause = [&](const transfer &each) {
		if (each.is_read || each.count == 0 || in_the_middle.write_end.get() < 0)
			return;
		in_the_middle.write_end.reset();
		waiting.write_end.reset();
		EXPECT_TRUE(wait_for(waiting.read_end.get(), POLLIN)); // the second closes the last one
	};
	pid_t first_child = start([&] { watch_transfers(pause, first); });
	in_the_middle.write_end.reset();
	EXPECT_TRUE(wait_for(in_the_middle.read_end.get(), POLLIN));
	pid_t second_child = start([&] {
		on_call = [&](const std::string &call, const std::string &) {
			if (call == "flock")
				waiting.write_end.reset();
		};
		second();
	});
	waiting.write_end.reset();
	for (pid_t child : {first_child, second_child}) {
		int status = -1;
		EXPECT_EQ(waitpid(child, &status, 0), child);
		EXPECT_EQ(status, 0);
	}
}

TEST(caldata_export, of_two_files_at_the_same_time_makes_both)
{
	on_bare_board([] {
		const std::string flash = random_bytes(2000);
		make_flash(flash);
		export_at_the_same_time([] { EXPECT_EQ(export_all("first.bin", 1300), 0); },
			[] { EXPECT_EQ(export_all("second.bin", 2000), 0); });
		EXPECT_EQ(names_in(firmware), (std::set<std::string>{"first.bin", "second.bin"}));
		EXPECT_EQ(read_file(firmware + "first.bin"), flash.substr(0, 1300));
		EXPECT_EQ(read_file(firmware + "second.bin"), flash);
	});
}

TEST(caldata_export, of_one_file_at_the_same_time_leaves_that_of_the_first)
{
	on_bare_board([] {
		const bytes_of_copy bytes;
		make_flash(bytes.flash);
		export_at_the_same_time([] { EXPECT_EQ(patch_all("cal.bin", 1300), 0); },
			[] { EXPECT_EQ(export_all("cal.bin", 1300), 0); });
		EXPECT_EQ(names_in(firmware), std::set<std::string>{"cal.bin"});
		EXPECT_EQ(read_file(firmware + "cal.bin"), bytes.whole);
	});
}

} // namespace
