#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <vector>

#include "commons/sh_quoting.h"
#include "tests/fuzz/fuzz.h"

namespace {

/// A shell that reads commands for as long as this process lives.
class Shell {
 public:
  explicit Shell(const std::vector<const char*>& command) {
    std::array<int, 2> toShell;
    std::array<int, 2> fromShell;
    require(pipe(toShell.data()) == 0 && pipe(fromShell.data()) == 0);
    const pid_t child = fork();
    require(child >= 0);
    if (child == 0) {
      dup2(toShell[0], STDIN_FILENO);
      dup2(fromShell[1], STDOUT_FILENO);
      for (const int end : {toShell[0], toShell[1], fromShell[0], fromShell[1]}) close(end);
      std::vector<char*> words;
      for (const char* word : command) words.push_back(const_cast<char*>(word));
      words.push_back(nullptr);
      setenv("LC_ALL", "C", 1);
      execvp(words[0], words.data());
      _exit(127);
    }
    close(toShell[0]);
    close(fromShell[1]);
    commands_ = fdopen(toShell[1], "w");
    answers_ = fdopen(fromShell[0], "r");
  }

  /// The words that the shell makes of a text, each with a zero byte behind it.
  std::string wordsOf(const std::string& text) {
    std::fprintf(commands_, "set -- %s\nprintf '%%s\\0' $# \"$@\" end-of-words\n", text.c_str());
    std::fflush(commands_);
    std::string words;
    const std::string end("end-of-words\0", 13);
    while (words.size() < end.size() || words.compare(words.size() - end.size(), end.size(), end)) {
      const int byte = std::fgetc(answers_);
      require(byte != EOF);
      words += static_cast<char>(byte);
    }
    return words.substr(0, words.size() - end.size());
  }

 private:
  std::FILE* commands_;
  std::FILE* answers_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Shell dash({"dash"});
  // Braces are left alone on purpose, and bash alone of the two expands them.
  static Shell bash({"bash", "--norc", "+B"});
  const std::string word = asText(data, size);
  // An empty word vanishes, and no argument holds a zero byte.
  if (word.empty() || word.find('\0') != std::string::npos) return 0;
  const std::string expected = std::string("1\0", 2) + word + '\0';
  const std::string quoted = sh_quote(word);
  require(dash.wordsOf(quoted) == expected);
  require(bash.wordsOf(quoted) == expected);
  // In a command that is itself an argument of sh -c.
  const std::string nested = sh_quote("a " + quoted);
  require(dash.wordsOf(nested) == std::string("1\0", 2) + "a " + quoted + '\0');
  return 0;
}
