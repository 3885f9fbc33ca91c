// Where stubs have taken the place of libnftnl and libmnl, no test of a program that includes this can run.
#pragma once
#ifdef APBASE_NFT_STUBS
#include <gtest/gtest.h>

// Each test is skipped, for this reason. The word, by which CTest knows it, gtest writes only for tests that have
// begun.
static testing::Environment *const nft_stubs = testing::AddGlobalTestEnvironment([] {
	struct skipping : testing::Environment {
		void SetUp() override { GTEST_SKIP() << "[  SKIPPED ] libnftnl and libmnl are stubs here"; }
	};
	return new skipping;
}());
#endif
