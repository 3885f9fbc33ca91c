// nft says nothing, whatever fails.
#include "lib/nft.h"

#include <sched.h>
#include <sys/resource.h>

#include "lib/log.h"

#include "tests/nft/appended.h"
#include "tests/nft/refusing.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/system_calls.h"

using namespace nft_objects;

namespace
{

// What `body` writes to the standard streams and to the system log, in a process of its own and a namespace
// without tables. No message is filtered.
std::string said_by(const std::function<void()> &body)
{
	child_result child = run_child([&] {
		ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
		log_open(LOG_DEST_STDIO | LOG_DEST_SYSLOG, LOG_USER, "app");
		messages.clear();
		body();
		for (const logged &one : messages)
			fprintf(stderr, "syslog %d: %s", one.priority, one.text.c_str());
	});
	EXPECT_TRUE(child.exited_with(0)) << child.report();
	return child.out + child.err;
}

// Refuses one request for memory of `call` after the other, from the `nth` on, and none at last.
template <typename F>
void run_with_each_request_refused(F call, int nth = 0)
{
	while (run_refusing(nth, false, call))
		nth++;
}

TEST(nft_silence, would_be_broken_by_any_message)
{
	EXPECT_EQ(said_by([] { _log(LOG_ERR, "word\n"); }), "app: word\nsyslog 3: word\n");
	EXPECT_EQ(said_by([] { _log(LOG_DEBUG, "word\n"); }), "app: word\nsyslog 7: word\n");
	EXPECT_EQ(said_by([] { _log(LOG_INFO, "word\n"); }), "app: word\nsyslog 6: word\n");
	EXPECT_EQ(said_by([] { fputs("word", stderr); }), "word");
}

TEST(nft_silence, is_kept_when_expressions_are_built_or_cannot_be)
{
	EXPECT_EQ(said_by([] {
		for (auto *build : expr_builders)
			run_with_each_request_refused([=] { owned_expr e{build()}; });
		run_with_each_request_refused([] {
			nftnl_expr *inner = kvnft_build_expr_limit(7, 0);
			nftnl_expr *e = kvnft_build_expr_dynset(1, "clients", 7, 1, true, inner);
			owned_expr made{e ? e : inner};
		});
		const std::string all = characters(65);
		for (const data_case &one : with_data)
			EXPECT_EQ(one.build(all.data(), 65), nullptr);
		EXPECT_EQ(kvnft_build_expr_lookup(1, nullptr, 0, 0), nullptr);
		owned_expr inner{kvnft_build_expr_limit(7, 0)};
		EXPECT_EQ(kvnft_build_expr_dynset(1, nullptr, 7, 1, true, inner.get()), nullptr);
	}),
		"");
}

TEST(nft_silence, is_kept_when_sets_tables_and_rules_are_built_or_cannot_be)
{
	EXPECT_EQ(said_by([] {
		run_with_each_request_refused([] { owned_set set{kvnft_build_set("t", "s", 1, 1, 4)}; });
		run_with_each_request_refused([] { owned<nftnl_table> table{kvnft_build_table("t", 1)}; });
		run_with_each_request_refused([] { owned_rule rule{kvnft_build_rule(1, "t", "c")}; });
		owned_set set{kvnft_build_set("t", "s", 1, 1, 4)};
		run_with_each_request_refused([&] { kvnft_build_set_add_elem(set.get(), "abcd", 4, 1); });
		EXPECT_EQ(kvnft_build_set_add_elem(set.get(), characters(65).data(), 65, 1), -ENOMEM);
		test_rule rule;
		run_with_each_request_refused([&] { kvnft_rule_set_mark(rule.get(), 5); });
		run_with_each_request_refused([&] { kvnft_rule_reject(rule.get(), 2, 1); });
		run_with_each_request_refused([&] { kvnft_rule_verdict(rule.get(), 1); });
	}),
		"");
}

TEST_F(nft_append, says_nothing_about_messages_that_are_appended_or_cannot_be)
{
	for (const append_case &one : cases)
		EXPECT_EQ(said_by([&] {
			test_batch batch, full(20);
			run_with_each_request_refused([&] { one.append(batch.get(), 1); });
			EXPECT_EQ(one.append(full.get(), 1), -ENOMEM);
		}),
			"")
			<< one.name;
}

TEST_F(nft_append, says_nothing_about_objects_that_are_too_large)
{
	EXPECT_EQ(said_by([&] {
		const std::string huge = characters(70000);
		test_batch batch;
		owned_set named{kvnft_build_set("t", huge.c_str(), 1, 0, 4)};
		owned_rule in_chain{kvnft_build_rule(1, "t", huge.c_str())};
		EXPECT_EQ(kvnft_batch_add_set(batch.get(), named.get(), 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_set_elem(batch.get(), named.get(), 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_rule(batch.get(), in_chain.get(), 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), huge.c_str(), 1, 1), -ENOMEM);
		EXPECT_EQ(kvnft_batch_add_chain_simple(
				  batch.get(), huge.c_str(), "t", nullptr, -1, 1, 0, nullptr, 1),
			-ENOMEM);
	}),
		"");
}

TEST(nft_silence, is_kept_when_batches_are_started_or_cannot_be)
{
	EXPECT_EQ(said_by([] {
		std::string buf(KVNFT_BATCH_BUFFER_SIZE(4096), '\0');
		EXPECT_EQ(kvnft_batch_alloc_start(buf.data(), 19, 0), nullptr);
		run_with_each_request_refused([&] {
			if (mnl_nlmsg_batch *batch = kvnft_batch_alloc_start(buf.data(), 4096, 0))
				kvnft_batch_free(batch);
		});
	}),
		"");
}

// The result of a batch that makes a table.
int send_table()
{
	test_batch batch;
	EXPECT_EQ(kvnft_batch_add_table_simple(batch.get(), "t", NFPROTO_INET, 1), 0);
	EXPECT_EQ(kvnft_batch_finish(batch.get(), 2), 0);
	return kvnft_batch_send(batch.get());
}

// A batch that is sent while `call` fails.
template <typename F>
void expect_failure_of(interposed<F> &call)
{
	auto failing = call.replace([](auto...) { return errno = ENETDOWN, -1; });
	EXPECT_EQ(send_table(), -ENETDOWN);
}

TEST(nft_silence, is_kept_when_batches_are_sent_or_cannot_be)
{
	skip_if_emulated(no_netfilter);
	EXPECT_EQ(said_by([] {
		EXPECT_EQ(send_table(), 0);
		expect_failure_of(system_calls::bind);
		expect_failure_of(system_calls::sendto);
		expect_failure_of(system_calls::select);
		expect_failure_of(system_calls::recvmsg);
		rlimit limit{};
		ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
		limit.rlim_cur = FD_SETSIZE;
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
		while (dup(0) >= 0)
			;
		EXPECT_EQ(send_table(), -EMFILE);
		limit.rlim_cur = FD_SETSIZE + 1; // a descriptor beyond those of an fd_set
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
		EXPECT_EQ(send_table(), 0);
	}),
		"");
}

TEST(nft_silence, is_kept_when_answers_are_given_to_a_callback_or_refused_by_it)
{
	skip_if_emulated(no_netfilter);
	const std::string which_generation = change(16, REQUEST, 1, 0, "");
	auto send = [&](mnl_cb_t cb) {
		return kvnft_send_msg_cb(which_generation.data(), which_generation.size(), cb, nullptr);
	};
	EXPECT_EQ(said_by([&] {
		EXPECT_EQ(send([](const nlmsghdr *, void *) { return MNL_CB_OK; }), 0);
		EXPECT_EQ(send([](const nlmsghdr *, void *) { return errno = EIO, MNL_CB_ERROR; }), -EIO);
	}),
		"");
}

int (*const changes[])(const char *table) = {
	[](const char *table) { return kvnft_flush_chain_simple("c", table, NFPROTO_INET); },
	[](const char *table) { return kvnft_flush_table_simple(table, NFPROTO_INET); },
	[](const char *table) { return kvnft_del_chain_simple("c", table, NFPROTO_INET); },
	[](const char *table) { return kvnft_del_table_simple(table, NFPROTO_INET); },
};

TEST(nft_silence, is_kept_when_whole_changes_are_made_or_cannot_be)
{
	skip_if_emulated(no_netfilter);
	for (auto *change_all : changes)
		EXPECT_EQ(said_by([=] {
			// Without the first, for the buffer, the process ends.
			run_with_each_request_refused([=] { change_all("t"); }, 1);
			EXPECT_EQ(change_all("t"), -ENOENT);
			EXPECT_EQ(change_all(characters(room + 1).c_str()), -ENOMEM);
			ASSERT_EQ(send_table(), 0);
			test_batch batch;
			ASSERT_EQ(kvnft_batch_add_chain_simple(
					  batch.get(), "c", "t", nullptr, -1, NFPROTO_INET, 0, nullptr, 1),
				0);
			ASSERT_EQ(kvnft_batch_finish(batch.get(), 2), 0);
			ASSERT_EQ(kvnft_batch_send(batch.get()), 0);
			EXPECT_EQ(change_all("t"), 0);
		}),
			"");
}

} // namespace
