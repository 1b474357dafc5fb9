#include "transport/known_hosts.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "commons/ExSystemError.h"
#include "support.h"
#include "transport/host_key_check.h"

namespace {

/// Called before a file is truncated.
std::function<void()> onTruncate;

}  // namespace

/// Replaces the function of the C library.
extern "C" int ftruncate(int fd, off_t size) noexcept {
  if (onTruncate) onTruncate();
  return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Public keys that ssh-keygen made for these tests; the private keys were not kept.
const std::string A = "AAAAC3NzaC1lZDI1NTE5AAAAINYYXKaoIaDPccpm2BDE6f+o4+P7P8DyfTpX0avsWPlY";
const std::string A_FINGERPRINT = "SHA256:KwY0xrnUIks/YbHgG6xKpq9+yAiWbn+F65Pt186uvnQ";
const std::string B = "AAAAC3NzaC1lZDI1NTE5AAAAIIWbhi3GTvtHsYgNap3NlcejxbVtPoGdOvKxvX5POEse";
const std::string C =
    "AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBOQUQMGgNj7opWMCgnd9roMjT832vialogykYP7AGJ"
    "Fg+LZ/shDH7dADswoa9EJJnx50W8B6Vik+TNwtOiWeHwA=";
const std::string A_LINE = " ssh-ed25519 " + A + "\n";
const std::string B_LINE = " ssh-ed25519 " + B + "\n";
const std::string C_LINE = " ecdsa-sha2-nistp256 " + C + "\n";
/// Made by `ssh-keygen -H` for source.example and [source.example]:2222.
const std::string HASHED = "|1|zaT2MgNh7KGQYIj9ysmP33PwIWQ=|QWw5HQ3B6TMbOF/kgbuKQgjLrvU=";
const std::string HASHED_PORT = "|1|OiQwm0Ii9FpQAM1skRyG8yMdLWU=|pQhJcHmrqb5UAVIZfN1Xl5RZun8=";

/// The key whose base64 is `text`.
HostKey keyOf(const std::string& text) {
  std::string blob;
  unsigned int bits = 0;
  int count = 0;
  const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (const char c : text.substr(0, text.find('='))) {
    bits = bits << 6 | static_cast<unsigned int>(digits.find(c));
    count += 6;
    if (count < 8) continue;
    count -= 8;
    blob += static_cast<char>(bits >> count & 0xff);
  }
  return HostKey(blob);
}

const HostKey KEY_A = keyOf(A);
const HostKey KEY_B = keyOf(B);
const HostKey KEY_C = keyOf(C);

class KnownHostsTest : public testing::Test {
 protected:
  KnownHosts read(const std::string& text, const std::string& host = "source.example",
                  std::uint16_t port = 22) {
    writeFile(path_, text);
    return KnownHosts(path_, host, port);
  }

  KnownHosts::Verdict judgeA(const std::string& text, const std::string& host = "source.example",
                             std::uint16_t port = 22) {
    return read(text, host, port).judge(KEY_A);
  }

  ScopedTempDir dir_;
  std::string path_ = dir_ / "known_hosts";
};

TEST(HostKeyTest, KnowsItsKindAndItsFingerprint) {
  EXPECT_EQ(KEY_A.type(), "ssh-ed25519");
  EXPECT_EQ(KEY_A.text(), A);
  EXPECT_EQ(KEY_A.fingerprint(), A_FINGERPRINT);
  EXPECT_EQ(KEY_C.type(), "ecdsa-sha2-nistp256");
  EXPECT_EQ(KEY_C.text(), C);
}

TEST(HostKeyTest, TakesWhatIsNoKeyForOneWithoutAKind) {
  for (const std::string& blob :
       {std::string(), std::string("abc"), std::string("\0\0\0\x09short", 9),
        std::string("\xff\xff\xff\xff", 4)}) {
    EXPECT_EQ(HostKey(blob).type(), "") << blob.size();
  }
}

TEST_F(KnownHostsTest, KnowsTheKeyUnderTheNameInAnyWayOfWriting) {
  for (const std::string names :
       {"source.example", "SOURCE.Example", "other,source.example", "source.example,10.0.0.1",
        "*.example", "sourc?.example", "*", "s*e*e", "*,!other.example", HASHED.c_str()}) {
    EXPECT_EQ(judgeA(names + A_LINE), KnownHosts::KNOWN) << names;
    EXPECT_EQ(judgeA(names + B_LINE), KnownHosts::CHANGED) << names;
  }
  EXPECT_EQ(judgeA("source.example" + A_LINE, "Source.EXAMPLE"), KnownHosts::KNOWN);
}

TEST_F(KnownHostsTest, DoesNotTakeOneNameForAnother) {
  for (const std::string names :
       {"source.example.org", "ource.example", "source", "*.org", "source?example.", "*,!source.*",
        "!source.example", "[source.example]:2222", HASHED_PORT.c_str(), "|1|broken",
        "|2|zaT2MgNh7KGQYIj9ysmP33PwIWQ=|QWw5HQ3B6TMbOF/kgbuKQgjLrvU=", "#source.example"}) {
    EXPECT_EQ(judgeA(names + A_LINE), KnownHosts::UNKNOWN) << names;
  }
}

TEST_F(KnownHostsTest, LooksForThePortWhereItIsNotTheUsualOne) {
  for (const std::string& name : {std::string("[source.example]:2222"), HASHED_PORT}) {
    EXPECT_EQ(judgeA(name + A_LINE, "source.example", 2222), KnownHosts::KNOWN) << name;
    EXPECT_EQ(judgeA(name + B_LINE, "source.example", 2222), KnownHosts::CHANGED) << name;
    EXPECT_EQ(judgeA(name + A_LINE, "source.example", 2223), KnownHosts::UNKNOWN) << name;
  }
}

TEST_F(KnownHostsTest, LetsTheHostsOwnKeyDoOnAnotherPortAndNoMore) {
  EXPECT_EQ(judgeA("source.example" + A_LINE, "source.example", 2222), KnownHosts::KNOWN);
  EXPECT_EQ(judgeA("source.example" + B_LINE, "source.example", 2222), KnownHosts::UNKNOWN);
}

TEST_F(KnownHostsTest, TakesAnyOfSeveralKeys) {
  const std::string text = "source.example" + B_LINE + "source.example" + C_LINE;
  EXPECT_EQ(read(text).judge(KEY_B), KnownHosts::KNOWN);
  EXPECT_EQ(read(text).judge(KEY_C), KnownHosts::KNOWN);
  EXPECT_EQ(read(text).judge(KEY_A), KnownHosts::CHANGED);
  EXPECT_THAT(read(text).types(), ElementsAre("ssh-ed25519", "ecdsa-sha2-nistp256"));
}

TEST_F(KnownHostsTest, TakesAnUnknownKindOfKeyOfAKnownServerForAChange) {
  EXPECT_EQ(judgeA("source.example" + C_LINE), KnownHosts::CHANGED);
}

TEST_F(KnownHostsTest, TrustsNoRevokedKeyWhateverElseIsSaid) {
  const std::string known = "source.example" + A_LINE;
  EXPECT_EQ(judgeA(known + "@revoked *" + A_LINE), KnownHosts::REVOKED);
  EXPECT_EQ(judgeA("@revoked source.example" + A_LINE + known), KnownHosts::REVOKED);
  EXPECT_EQ(judgeA(known + "@revoked other.example" + A_LINE), KnownHosts::KNOWN);
  EXPECT_EQ(judgeA(known + "@revoked *" + B_LINE), KnownHosts::KNOWN);
}

TEST_F(KnownHostsTest, DoesNotKnowAServerByACertificateAuthority) {
  EXPECT_EQ(judgeA("@cert-authority *" + A_LINE), KnownHosts::UNKNOWN);
  EXPECT_EQ(judgeA("@something *" + A_LINE), KnownHosts::UNKNOWN);
  EXPECT_THAT(read("@cert-authority *" + A_LINE).types(), IsEmpty());
}

TEST_F(KnownHostsTest, TakesAServerWithAnUnreadableKeyForKnownByAnother) {
  for (const std::string rest :
       {"", " ssh-ed25519", " ssh-ed25519 AAAAC3Nz", " 1024 35 123456", " ssh-ed25519 ???"}) {
    EXPECT_EQ(judgeA("source.example" + rest), KnownHosts::CHANGED) << rest;
  }
}

TEST_F(KnownHostsTest, ReadsWhatEditorsLeave) {
  EXPECT_EQ(judgeA("\n  \n# comment\n\tsource.example\tssh-ed25519\t" + A + " a comment"),
            KnownHosts::KNOWN);
  EXPECT_EQ(judgeA("source.example ssh-ed25519 " + A + "\r\n"), KnownHosts::KNOWN);
}

TEST_F(KnownHostsTest, ComesToAnEndWithAnyPattern) {
  std::string pattern;
  for (int i = 0; i < 2000; ++i) pattern += "*a";
  EXPECT_EQ(judgeA(pattern + A_LINE, std::string(250, 'a')), KnownHosts::UNKNOWN);
}

TEST_F(KnownHostsTest, KnowsNobodyWithoutAFile) {
  EXPECT_EQ(KnownHosts(path_, "source.example", 22).judge(KEY_A), KnownHosts::UNKNOWN);
  EXPECT_FALSE(exists(path_));
}

TEST_F(KnownHostsTest, FailsWithWhatIsNoFile) {
  EXPECT_THROW(KnownHosts(dir_.path(), "source.example", 22), std::runtime_error);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_THROW(KnownHosts(path_, "source.example", 22), std::runtime_error);
}

TEST_F(KnownHostsTest, AddsAServerSoThatItIsKnownNextTime) {
  KnownHosts none(path_, "Source.example", 22);
  none.add(KEY_A);
  EXPECT_EQ(none.judge(KEY_A), KnownHosts::KNOWN);
  EXPECT_EQ(readFile(path_), "source.example" + A_LINE);
  KnownHosts(path_, "source.example", 2222).add(KEY_B);
  EXPECT_EQ(readFile(path_), "source.example" + A_LINE + "[source.example]:2222" + B_LINE);
  KnownHosts(path_, "::1", 2222).add(KEY_C);
  EXPECT_EQ(KnownHosts(path_, "::1", 2222).judge(KEY_C), KnownHosts::KNOWN);
}

TEST_F(KnownHostsTest, EndsAnUnfinishedLineFirst) {
  KnownHosts others = read("# no line end");
  others.add(KEY_A);
  EXPECT_EQ(readFile(path_), "# no line end\nsource.example" + A_LINE);
}

TEST_F(KnownHostsTest, LeavesTheFileAsItWasWhenTheDiskIsFull) {
  ASSERT_EQ(mkdir((dir_ / "full").c_str(), 0755), 0);
  const std::string path = dir_ / "full/known_hosts";
  const ScopedTmpfs full(dir_ / "full", 4096);
  const std::string text = std::string(4050, '#') + "\n";
  writeFile(path, text);
  KnownHosts known(path, "source.example", 22);
  EXPECT_THROW(known.add(KEY_A), std::runtime_error);
  EXPECT_EQ(readFile(path), text);
  EXPECT_EQ(known.judge(KEY_A), KnownHosts::UNKNOWN);
}

TEST_F(KnownHostsTest, DoesNotCutOffTheLineOfAnotherRunWhenTheDiskIsFull) {
  ASSERT_EQ(mkdir((dir_ / "full").c_str(), 0755), 0);
  const std::string path = dir_ / "full/known_hosts";
  const ScopedTmpfs full(dir_ / "full", 8192);
  const std::string text = std::string(8150, '#') + "\n";
  writeFile(path, text);
  KnownHosts known(path, "source.example", 22);
  // Stands for another run, which locks the file before it writes.
  const UniqueFd other(open(path.c_str(), O_WRONLY | O_APPEND));
  bool waits = false;
  onTruncate = [&] { waits = flock(other.get(), LOCK_EX | LOCK_NB) != 0; };
  EXPECT_THROW(known.add(KEY_A), std::runtime_error);
  EXPECT_TRUE(waits);
  onTruncate = nullptr;
  EXPECT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0) << "the lock outlives the line";
  EXPECT_EQ(readFile(path), text);
}

TEST_F(KnownHostsTest, IsNotHeldUpForeverByALockAndCutsNothingOffWithoutIt) {
  ASSERT_EQ(mkdir((dir_ / "full").c_str(), 0755), 0);
  const std::string path = dir_ / "full/known_hosts";
  const ScopedTmpfs full(dir_ / "full", 4096);
  writeFile(path, std::string(4050, '#') + "\n");
  const UniqueFd reader(open(path.c_str(), O_RDONLY));
  ASSERT_EQ(flock(reader.get(), LOCK_SH), 0);
  EXPECT_THROW(KnownHosts(path, "source.example", 22).add(KEY_A), std::runtime_error);
  EXPECT_EQ(readFile(path).size(), 4096u);
}

TEST_F(KnownHostsTest, AddsNoNameThatMeansSomethingElseInAFile) {
  for (const std::string host : {"a b", "a,b", "*", "!a", "|1|a", "@revoked", "#a", "a\nb"}) {
    EXPECT_THROW(KnownHosts(path_, host, 22).add(KEY_A), std::runtime_error) << host;
  }
  EXPECT_THROW(KnownHosts(path_, "a", 22)
                   .add(HostKey(std::string("\0\0\0\x03"
                                            "a b",
                                            7))),
               std::runtime_error);
  EXPECT_FALSE(exists(path_));
}

class HostKeyCheckTest : public KnownHostsTest {
 protected:
  /// Empty for a trusted key, else the reason why it is not trusted.
  std::string check(HostKeyRules::Policy policy, const HostKey& key) {
    try {
      HostKeyCheck({policy, path_}, "source.example", 22).check(key);
      return "";
    } catch (const Exc<&SshHostKeyRejected>& e) {
      return e.what();
    }
  }
};

TEST_F(HostKeyCheckTest, IgnoresKeysAndTheFileUnlessToldOtherwise) {
  HostKeyCheck check({}, "source.example", 22);
  check.check(KEY_A);
  EXPECT_THAT(check.types(), IsEmpty());
  writeFile(path_, "source.example" + B_LINE);
  EXPECT_EQ(this->check(HostKeyRules::IGNORE, KEY_A), "");
}

TEST_F(HostKeyCheckTest, AcceptsANewServerOnceAndNoOtherKeyAfterwards) {
  EXPECT_EQ(check(HostKeyRules::ACCEPT_NEW, KEY_A), "");
  EXPECT_EQ(readFile(path_), "source.example" + A_LINE);
  EXPECT_EQ(check(HostKeyRules::ACCEPT_NEW, KEY_A), "");
  EXPECT_EQ(check(HostKeyRules::ACCEPT_NEW, KEY_B),
            "Unable to connect to host source.example: the key that it presents, ssh-ed25519 " +
                KEY_B.fingerprint() + ", is not the one that " + path_ +
                " has for it. Either the key was changed, or somebody is between this host and it");
  EXPECT_EQ(readFile(path_), "source.example" + A_LINE);
}

TEST_F(HostKeyCheckTest, TrustsOnlyKnownKeysWhenStrict) {
  EXPECT_EQ(check(HostKeyRules::STRICT, KEY_A),
            "Unable to connect to host source.example: the key that it presents, ssh-ed25519 " +
                A_FINGERPRINT + ", is not known: " + path_ + " has none for it");
  EXPECT_FALSE(exists(path_));
  writeFile(path_, "source.example" + A_LINE);
  EXPECT_EQ(check(HostKeyRules::STRICT, KEY_A), "");
  EXPECT_THAT(check(HostKeyRules::STRICT, KEY_B), HasSubstr("is not the one that"));
}

TEST_F(HostKeyCheckTest, TrustsNoRevokedKey) {
  writeFile(path_, "@revoked *" + A_LINE);
  for (const auto policy : {HostKeyRules::ACCEPT_NEW, HostKeyRules::STRICT}) {
    EXPECT_THAT(check(policy, KEY_A), HasSubstr("is revoked in " + path_));
  }
}

TEST_F(HostKeyCheckTest, TrustsNobodyWhenTheFileCannotBeUsed) {
  ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
  for (const auto policy : {HostKeyRules::ACCEPT_NEW, HostKeyRules::STRICT}) {
    EXPECT_THAT(check(policy, KEY_A),
                HasSubstr("the file of known host keys cannot be used: " + path_));
  }
  ASSERT_EQ(rmdir(path_.c_str()), 0);
  path_ = dir_ / "missing/known_hosts";
  EXPECT_THAT(check(HostKeyRules::ACCEPT_NEW, KEY_A),
              HasSubstr("the file of known host keys cannot be used: " + path_));
}

}  // namespace
