#include "base/shell_word.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <string>

#include "base/small_file.h"
#include "base/unique_fd.h"

namespace {

// Lets /bin/sh print `word` between "<" and ">". @return what the shell printed, with the brackets
std::string readByShell(const std::string& word) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return "no pipe";
  const base::UniqueFd output(ends[0]);
  base::UniqueFd input(ends[1]);
  const std::string script = "printf '<%s>' " + word;
  const pid_t child = fork();
  if (child == 0) {
    dup2(input.get(), STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
    _exit(127);
  }
  input.reset();
  std::string read = base::readToEnd(output.get(), 4096).text;
  waitpid(child, nullptr, 0);
  return read;
}

TEST(ShellWord, IsQuotedWhatEverItHolds) {
  EXPECT_EQ(base::shellWord(""), "''");
  EXPECT_EQ(base::shellWord("a b"), "'a b'");
  EXPECT_EQ(base::shellWord("it's"), "'it'\\''s'");
}

TEST(ShellWord, IsReadBackByAShellAsItWas) {
  std::string every = "it's $(id) `id` \\ \"$HOME\" ''; exit 1\n";
  for (int byte = 1; byte < 256; ++byte) every += static_cast<char>(byte);
  EXPECT_EQ(readByShell(base::shellWord(every)), "<" + every + ">");
  EXPECT_EQ(readByShell(base::shellWord("")), "<>");
}

}  // namespace
