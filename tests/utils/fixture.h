// A fixture that collects what is logged and fails a test which leaves a child.
#pragma once
#include "lib/utils.h"

#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include "lib/log.h"
#include "tests/support/memory.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"

namespace utils_tests
{

using namespace support;

class utils_test : public descriptor_test
{
protected:
	void SetUp() override
	{
		memory.grant();
		log_open(LOG_DEST_SYSLOG, LOG_DAEMON, nullptr);
		messages.clear();
		descriptor_test::SetUp();
	}
	void TearDown() override
	{
		EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
		descriptor_test::TearDown();
	}
};

inline void expect_exited(pid_t pid, int code)
{
	int status = -1;
	EXPECT_EQ(waitpid(pid, &status, WNOHANG), pid);
	EXPECT_EQ(status, code * 256);
}

} // namespace utils_tests
