#include "platform/Process.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

// Output read to its end (more than a pipe holds), the exit status or 128 + the signal, and
// arguments handed over as they are, never through a shell.
TEST(ProcessRunnerTest, OutputStatusAndArgumentsAsGiven) {
  struct Row {
    const char* program;
    std::vector<std::string> arguments;
    std::size_t outputSize;
    const char* output;  // nullptr: only the size is compared
    int status;
  };
  auto runner = makeProcessRunner();
  for (const Row& row : std::initializer_list<Row>{
           {"/bin/sh", {"-c", "echo hello; echo ignored >&2; exit 3"}, 6, "hello\n", 3},
           {"/bin/sh", {"-c", "head -c 1000000 /dev/zero"}, 1000000, nullptr, 0},
           {"/bin/echo", {"$HOME", "a b", "; true"}, 17, "$HOME a b ; true\n", 0},
           {"/bin/sh", {"-c", "kill -TERM $$"}, 0, "", 128 + 15}}) {
    auto out = runner->run(row.program, row.arguments);
    ASSERT_TRUE(out) << row.arguments.back();
    EXPECT_EQ(out->standardOutput.size(), row.outputSize) << row.arguments.back();
    if (row.output) EXPECT_EQ(out->standardOutput, row.output);
    EXPECT_EQ(out->exitStatus, row.status) << row.arguments.back();
  }
  // Programs that can't start: a relative name, none, a missing file, a file not executable.
  for (const char* program : {"echo", "", "/nonexistent/program", "/etc/hostname"}) {
    EXPECT_FALSE(runner->run(program, {})) << program;
  }
}

}  // namespace
}  // namespace platform
