#include "transport/cipher_offer.h"

#include <libssh2.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "support.h"
#include "transport/ssh-transfer.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string GREETING = "SSH-2.0-Server\r\n";
const std::vector<std::string> PREFERRED = {"aes128-gcm@openssh.com", "aes128-ctr"};

std::string number(std::size_t value) {
  std::string bytes(4, '\0');
  for (std::size_t i = 0; i < 4; ++i) bytes[i] = static_cast<char>(value >> (24 - 8 * i) & 0xff);
  return bytes;
}

std::string list(const std::string& names) {
  return number(names.size()) + names;
}

/// The key exchange message of a server with these ciphers.
std::string offerOf(const std::string& toServer, const std::string& toClient) {
  std::string message(1, '\x14');
  message.append(16, 'r');
  message += list("curve25519-sha256,diffie-hellman-group14-sha256") + list("ssh-ed25519");
  message += list(toServer) + list(toClient);
  for (int direction = 0; direction < 2; ++direction) message += list("hmac-sha2-256");
  message += list("none") + list("none") + list("") + list("") + std::string(5, '\0');
  const std::size_t padding = 4 + (8 - (5 + message.size() + 4) % 8) % 8;
  return number(1 + message.size() + padding) + static_cast<char>(padding) + message +
         std::string(padding, 'p');
}

CipherOffer offerIn(const std::string& bytes) {
  CipherOffer offer;
  offer.add(bytes.data(), bytes.size());
  return offer;
}

/// A server that offers AES-GCM for one direction only; records what its clients offer.
class LopsidedServer {
 public:
  LopsidedServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(listener_.get(), 5), 0);
    EXPECT_EQ(getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    port = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~LopsidedServer() { stop(); }
  LopsidedServer(const LopsidedServer&) = delete;
  LopsidedServer& operator=(const LopsidedServer&) = delete;

  void stop() {
    shutdown(listener_.get(), SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
  }

  std::uint16_t port = 0;
  /// One for each connection.
  std::vector<CipherOffer> clients;

 private:
  void serve() {
    const std::string said = GREETING + offerOf("aes128-ctr", "aes128-gcm@openssh.com,aes128-ctr");
    for (;;) {
      const UniqueFd peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!peer) return;
      send(peer.get(), said.data(), said.size(), MSG_NOSIGNAL);
      CipherOffer offer;
      char byte;
      while (!offer.isKnown() && recv(peer.get(), &byte, 1, 0) == 1) offer.add(&byte, 1);
      clients.push_back(offer);
    }
  }

  UniqueFd listener_;
  std::thread thread_;
};

}  // namespace

TEST(CipherOfferTest, IsReadFromWhatAServerSaysFirst) {
  const std::string said = GREETING + offerOf("a,b", "b,c");
  const CipherOffer offer = offerIn(said + "more");
  EXPECT_TRUE(offer.isKnown());
  EXPECT_THAT(offer.toServer(), ElementsAre("a", "b"));
  EXPECT_THAT(offer.toClient(), ElementsAre("b", "c"));
  EXPECT_TRUE(offerIn("a notice\r\nSSH\n" + said).isKnown());
}

TEST(CipherOfferTest, IsReadByteByByteAndNotBeforeItsEnd) {
  const std::string said = GREETING + offerOf("a", "b");
  CipherOffer offer;
  for (const char& byte : said) {
    EXPECT_FALSE(offer.isKnown());
    offer.add(&byte, 1);
  }
  EXPECT_TRUE(offer.isKnown());
}

TEST(CipherOfferTest, StaysUnknownForWhatIsNone) {
  std::string other = offerOf("a", "b");
  other[5] = '\x01';
  const std::string cut = offerOf("a", "b").substr(4, 40);
  for (const std::string& said :
       {std::string("no greeting"), GREETING, GREETING + other, GREETING + number(cut.size()) + cut,
        GREETING + number(0) + number(0), GREETING + std::string(10, '\xff'),
        GREETING + number(5) + "\x04\x14" + "abc", std::string(100000, 'x')}) {
    SCOPED_TRACE(said.substr(0, 60));
    const CipherOffer offer = offerIn(said);
    EXPECT_FALSE(offer.isKnown());
    EXPECT_THAT(offer.toServer(), IsEmpty());
    EXPECT_FALSE(offer.makesMixedPairOf(PREFERRED));
  }
}

TEST(CipherOfferTest, MakesAMixedPairWhereOneWayOnlyHasAGcmCipher) {
  const std::string gcm = "aes128-gcm@openssh.com,aes128-ctr";
  const std::string ctr = "aes128-ctr";
  const auto isMixed = [](const std::string& toServer, const std::string& toClient) {
    return offerIn(GREETING + offerOf(toServer, toClient)).makesMixedPairOf(PREFERRED);
  };
  EXPECT_TRUE(isMixed(ctr, gcm));
  EXPECT_TRUE(isMixed(gcm, ctr));
  EXPECT_TRUE(isMixed(gcm, "unknown"));
  EXPECT_FALSE(isMixed(gcm, gcm));
  EXPECT_FALSE(isMixed(ctr, ctr));
  // The client's order decides.
  EXPECT_FALSE(isMixed("aes128-ctr,aes128-gcm@openssh.com", gcm));
}

TEST(SshCiphersTest, AreAlikeBothWaysAndWithoutGcmForAServerThatHasItOneWayOnly) {
  LopsidedServer server;
  EXPECT_THROW(Ssh("127.0.0.1", "root", "", false, server.port), Exc<&UnableToStartSshSession>);
  server.stop();
  std::vector<bool> withGcm;
  for (const CipherOffer& client : server.clients) {
    ASSERT_TRUE(client.isKnown());
    EXPECT_EQ(client.toServer(), client.toClient());
    withGcm.push_back(isGcmCipher(client.toClient().front()));
    // Ciphers that processors have instructions for come before the slow one that a library may
    // have.
    EXPECT_TRUE(withGcm.back() || client.toClient().front().find("-ctr") != std::string::npos);
  }
  // Each attempt, the second one in compatibility mode, begins with GCM where the library has it.
  if (libssh2_version(0x010b00)) {
    EXPECT_THAT(withGcm, ElementsAre(true, false, true, false));
  } else {
    EXPECT_THAT(withGcm, ElementsAre(false, false));
  }
}
