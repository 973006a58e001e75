#include "platform/Process.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

class ProcessRunnerTest : public ::testing::Test {
 protected:
  std::unique_ptr<ProcessRunner> runner_ = makeProcessRunner();
};

TEST_F(ProcessRunnerTest, GivesStandardOutputAndExitStatus) {
  auto out = runner_->run("/bin/sh", {"-c", "echo hello; echo ignored >&2; exit 3"});
  ASSERT_TRUE(out);
  EXPECT_EQ(out->standardOutput, "hello\n");
  EXPECT_EQ(out->exitStatus, 3);
}

TEST_F(ProcessRunnerTest, ReadsLongOutputToTheEnd) {
  // More than a pipe holds, so the child blocks unless the parent reads while it runs.
  auto out = runner_->run("/bin/sh", {"-c", "head -c 1000000 /dev/zero"});
  ASSERT_TRUE(out);
  EXPECT_EQ(out->standardOutput.size(), 1000000u);
  EXPECT_EQ(out->exitStatus, 0);
}

TEST_F(ProcessRunnerTest, ArgumentsAreNotInterpretedByAShell) {
  auto out = runner_->run("/bin/echo", {"$HOME", "a b", "; true"});
  ASSERT_TRUE(out);
  EXPECT_EQ(out->standardOutput, "$HOME a b ; true\n");
}

TEST_F(ProcessRunnerTest, ProgramsThatCannotStartFailCleanly) {
  EXPECT_FALSE(runner_->run("echo", {"relative"}));
  EXPECT_FALSE(runner_->run("", {}));
  EXPECT_FALSE(runner_->run("/nonexistent/program", {}));
  EXPECT_FALSE(runner_->run("/etc/hostname", {}));  // not executable
}

TEST_F(ProcessRunnerTest, SignalEndsAreReportedAbove128) {
  auto out = runner_->run("/bin/sh", {"-c", "kill -TERM $$"});
  ASSERT_TRUE(out);
  EXPECT_EQ(out->exitStatus, 128 + 15);
}

}  // namespace
}  // namespace platform
