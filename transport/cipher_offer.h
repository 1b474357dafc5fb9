#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// True for an authenticating cipher, which needs no separate sum of each packet.
bool isGcmCipher(const std::string& cipher);

/// Learns which ciphers a peer offers from the first that it says, as that comes in: its greeting
/// and the message in which it lists what it can do. What is neither is left for others to judge.
class CipherOffer {
 public:
  void add(const char* bytes, std::size_t size);
  /// False, too, when what came is no such message.
  bool isKnown() const { return isKnown_; }
  /// From the client to the server, in the order of the message; none before it is known.
  const std::vector<std::string>& toServer() const { return toServer_; }
  /// The same from the server to the client.
  const std::vector<std::string>& toClient() const { return toClient_; }
  /// True when a client that prefers the ciphers in this order, both ways, gets from this server
  /// an authenticating one for one direction only.
  bool makesMixedPairOf(const std::vector<std::string>& preferred) const;

 private:
  bool skipGreeting();
  void readMessage(const std::string& message);
  void finish();

  std::string text_;
  std::size_t lineBegin_ = 0;
  bool isGreeted_ = false;
  bool isOver_ = false;
  bool isKnown_ = false;
  std::vector<std::string> toServer_;
  std::vector<std::string> toClient_;
};
