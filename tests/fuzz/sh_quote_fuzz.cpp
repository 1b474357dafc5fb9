#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <vector>

#include "commons/sh_quoting.h"
#include "tests/fuzz/fuzz.h"

namespace {

/// libFuzzer sets an alarm, whose signal interrupts system calls.
template <class Call>
auto retryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

std::string readAll(int fd) {
  std::string text;
  std::array<char, 4096> block;
  for (;;) {
    const ssize_t got = retryInterrupted([&] { return read(fd, block.data(), block.size()); });
    require(got >= 0);
    if (got == 0) return text;
    text.append(block.data(), static_cast<std::size_t>(got));
  }
}

/// What a shell prints when it gets the script as an argument, like the shell of a remote host. It
/// must end with status 0.
std::string printedBy(std::vector<std::string> shell, const std::string& script) {
  std::array<int, 2> ends;
  require(pipe2(ends.data(), O_CLOEXEC) == 0);
  const UniqueFd ours(ends[0]);
  UniqueFd theirs(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDOUT_FILENO);
  shell.insert(shell.end(), {"-c", script});
  std::vector<char*> words;
  for (std::string& word : shell) words.push_back(word.data());
  words.push_back(nullptr);
  std::string locale = "LC_ALL=C";
  std::array<char*, 2> environment = {locale.data(), nullptr};
  pid_t child = 0;
  require(posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environment.data()) == 0);
  posix_spawn_file_actions_destroy(&actions);
  theirs.close();
  const std::string printed = readAll(ours.get());
  int status = 0;
  require(retryInterrupted([&] { return waitpid(child, &status, 0); }) == child && status == 0);
  return printed;
}

/// A script that prints the number of words in the text and then the words, each with a zero byte
/// behind it.
std::string showWords(const std::string& text) {
  return "set -- " + text + "\nprintf '%s\\0' $# \"$@\"\n";
}

std::string oneWord(const std::string& word) {
  return std::string("1\0", 2) + word + '\0';
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string word = asText(data, size);
  // An empty word vanishes from a command line, and no argument can hold a zero byte.
  if (word.empty() || word.find('\0') != std::string::npos) return 0;
  const std::string quoted = sh_quote(word);
  // A word of a command may be a command line itself.
  const std::string line = "a " + quoted;
  const std::string script = showWords(quoted) + showWords(sh_quote(line));
  const std::string expected = oneWord(word) + oneWord(line);
  require(printedBy({"dash"}, script) == expected);
  // sh_quote leaves braces unquoted on purpose; bash would expand them without +B.
  require(printedBy({"bash", "+B"}, script) == expected);
  return 0;
}
