#include "transport/ssh_session.h"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support.h"
#include "transport/libssh2pp.h"

using libssh2pp::Session;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::StartsWith;

namespace {

/// The answers to `prompts` questions, as the library would send them.
std::vector<std::string> answers(int prompts, std::string password) {
  std::vector<LIBSSH2_USERAUTH_KBDINT_PROMPT> questions(static_cast<std::size_t>(prompts));
  std::vector<LIBSSH2_USERAUTH_KBDINT_RESPONSE> responses(static_cast<std::size_t>(prompts));
  libssh2pp::CallbackData data;
  data.promptAnswer = &password;
  void* abstract = &data;
  Session::userauth_callback("name", 4, "instruction", 11, prompts, questions.data(),
                             responses.data(), &abstract);
  std::vector<std::string> texts;
  for (const LIBSSH2_USERAUTH_KBDINT_RESPONSE& response : responses) {
    // A byte past the length would be found by the address sanitizer.
    texts.emplace_back(response.text, response.length);
    free(response.text);
  }
  return texts;
}

/// The error of starting a session with a peer that has sent `greeting` and closed the connection.
std::string startError(const std::string& greeting, std::vector<std::string>& log) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const UniqueFd ours(ends[0]);
  UniqueFd theirs(ends[1]);
  EXPECT_EQ(write(theirs.get(), greeting.data(), greeting.size()),
            static_cast<ssize_t>(greeting.size()));
  shutdown(theirs.get(), SHUT_WR);
  CategoryRecorder recorder("k.libssh2pp.Session", 700);
  const std::string error = whatOf<Exc<&UnableToStartSshSession>>(
      [&] { const Session session(ours.get(), false, false); });
  log = recorder.lines();
  return error;
}

}  // namespace

TEST(UserauthCallbackTest, AnswersEveryPromptWithThePasswordInABufferOfItsOwn) {
  EXPECT_THAT(answers(1, "secret"), ElementsAre("secret"));
  EXPECT_THAT(answers(3, "secret"), ElementsAre("secret", "secret", "secret"));
  EXPECT_THAT(answers(100, "x"), testing::Each("x"));
}

TEST(UserauthCallbackTest, AnswersNothingWhenNothingIsAsked) {
  EXPECT_THAT(answers(0, "secret"), ElementsAre());
}

TEST(UserauthCallbackTest, KeepsEveryByteOfThePassword) {
  const std::string odd("\0\n\xff tail", 8);
  EXPECT_THAT(answers(2, odd), ElementsAre(odd, odd));
}

TEST(UserauthCallbackTest, LogsTheNumberOfPromptsAndNotThePassword) {
  CategoryRecorder recorder("k.libssh2pp.Session", 700);
  answers(3, "secret");
  EXPECT_THAT(recorder.lines(),
              ElementsAre("DEBUG k.libssh2pp.Session: 'keyboard-interactive' callback requested. "
                          "Filling 3 responses with the password"));
}

TEST(SessionStartTest, FailsWithTheLibrarysTextWhichIsLoggedToo) {
  std::vector<std::string> log;
  const std::string prefix = "Unable to start SSH session: ";
  const std::string error = startError("", log);
  EXPECT_THAT(error, StartsWith(prefix));
  EXPECT_GT(error.size(), prefix.size());
  EXPECT_THAT(log, ElementsAre("DEBUG k.libssh2pp.Session: Trying to start SSH session",
                               "ERROR k.libssh2pp.Session: SSH session was not started: " +
                                   error.substr(prefix.size())));
}

TEST(SessionStartTest, GivesASilentPeerTheLoginLimitOnly) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const UniqueFd ours(ends[0]);
  const UniqueFd theirs(ends[1]);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW(Session(ours.get(), false, false, 50ms), Exc<&UnableToStartSshSession>);
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 25ms);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

TEST(SessionStartTest, GivesAPeerThatNeverStopsTalkingTheLoginLimitOnly) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  UniqueFd ours(ends[0]);
  UniqueFd theirs(ends[1]);
  std::thread peer([&] {
    std::string lines;
    for (int i = 0; i < 1000; ++i) lines += "a greeting\r\n";
    while (send(theirs.get(), lines.data(), lines.size(), MSG_NOSIGNAL) > 0) continue;
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW(Session(ours.get(), false, false, 50ms), Exc<&UnableToStartSshSession>);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  ours.close();
  peer.join();
}

TEST(SessionStartTest, LogsHowThePeerPresentedItself) {
  std::vector<std::string> log;
  EXPECT_THAT(startError("SSH-2.0-somebody\r\n", log), StartsWith("Unable to start SSH session: "));
  EXPECT_THAT(log,
              testing::Contains("ERROR k.libssh2pp.Session: The remote host presents itself as "
                                "SSH-2.0-somebody"));
}
