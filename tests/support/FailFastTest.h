#pragma once
// The thread rules that headers state are checked in every build: breaking one ends the process
// with the rule in the log. These tests break one in a child process that gtest starts for it.

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace testsupport {

// `breach` ends its (child) process, and `rule` is logged once more than before.
template <typename Breach>
void ExpectFailFast(const std::wstring& rule, Breach&& breach) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const size_t before = CountInServiceLog(rule);
    EXPECT_DEATH(breach(), "");
    EXPECT_EQ(CountInServiceLog(rule), before + 1) << "the rule in the log";
}

}  // namespace testsupport
