#include "transport/known_hosts.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <log4cpp/Category.hh>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "commons/ExSystemError.h"
#include "commons/commons.h"
#include "commons/output_file.h"
#include "commons/unique_fd.h"
#include "transport/base64.h"

namespace {

log4cpp::Category& sshLog = log4cpp::Category::getInstance("k.Ssh");

constexpr std::uint16_t DEFAULT_PORT = 22;

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string sha256(const std::string& bytes) {
  std::string sum(EVP_MAX_MD_SIZE, '\0');
  unsigned int size = 0;
  if (!EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(sum.data()), &size,
                  EVP_sha256(), nullptr)) {
    throw std::runtime_error("SHA-256 is not available");
  }
  sum.resize(size);
  return sum;
}

/// The first of the strings that a key consists of; empty for what is no key.
std::string firstStringOf(const std::string& blob) {
  constexpr std::size_t LENGTH_BYTES = 4;
  if (blob.size() < LENGTH_BYTES) return "";
  std::size_t length = 0;
  for (std::size_t i = 0; i < LENGTH_BYTES; ++i) length = length << 8 | bytesOf(blob)[i];
  return length <= blob.size() - LENGTH_BYTES ? blob.substr(LENGTH_BYTES, length) : "";
}

/// A hashed name: "|1|", the salt, "|", and the HMAC-SHA1 of the name.
bool matchesHash(const std::string& hashed, const std::string& name) {
  const std::size_t saltAt = 3;
  const std::size_t bar = hashed.find('|', saltAt);
  if (hashed.compare(0, saltAt, "|1|") != 0 || bar == std::string::npos) return false;
  const std::optional<std::string> salt = fromBase64(hashed.substr(saltAt, bar - saltAt));
  if (!salt) return false;
  std::string sum(EVP_MAX_MD_SIZE, '\0');
  unsigned int size = 0;
  if (!HMAC(EVP_sha1(), salt->data(), static_cast<int>(salt->size()), bytesOf(name), name.size(),
            reinterpret_cast<unsigned char*>(sum.data()), &size)) {
    throw std::runtime_error("HMAC-SHA1 is not available");
  }
  sum.resize(size);
  return toBase64(sum) == hashed.substr(bar + 1);
}

/// '*' stands for anything, '?' for one character. Not fnmatch: brackets are a part of the
/// names here. The time is bounded by the product of both lengths, for any pattern.
bool matchesPattern(const std::string& pattern, const std::string& name) {
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t star = std::string::npos;
  std::size_t afterStar = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      afterStar = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (star != std::string::npos) {
      p = star + 1;
      n = ++afterStar;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string::npos;
}

/// A list of patterns; one that begins with '!' and matches takes the name out of it.
bool matchesList(const std::string& list, const std::string& name) {
  if (list[0] == '|') return matchesHash(list, name);
  std::vector<std::string> patterns;
  boost::split(patterns, boost::to_lower_copy(list, std::locale::classic()), boost::is_any_of(","));
  bool matches = false;
  for (const std::string& pattern : patterns) {
    const bool excludes = !pattern.empty() && pattern[0] == '!';
    if (!matchesPattern(excludes ? pattern.substr(1) : pattern, name)) continue;
    if (excludes) return false;
    matches = true;
  }
  return matches;
}

/// The whole file; nothing when it is not there.
std::optional<std::string> readWhole(const std::string& path) {
  // O_NONBLOCK: opening a FIFO must not hang the run.
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) {
    if (errno == ENOENT) return std::nullopt;
    throwSystemError(path, errno);
  }
  struct stat status;
  if (fstat(file.get(), &status) != 0) throwSystemError(path, errno);
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + ": not a regular file");
  std::string text;
  std::array<char, 65536> block;
  for (;;) {
    const ssize_t got = read(file.get(), block.data(), block.size());
    if (got == 0) return text;
    if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
    if (got < 0 && errno != EINTR) throwSystemError(path, errno);
  }
}

bool endsInsideLine(int file) {
  char last = '\n';
  const off_t size = lseek(file, 0, SEEK_END);
  return size > 0 && pread(file, &last, 1, size - 1) == 1 && last != '\n';
}

/// Waits until no other run appends to the file; the lock goes with the descriptor. False after
/// a time limit: every account that can read the file can hold a lock on it for ever.
bool lockForAppending(int file) {
  constexpr int PAUSE_MS = 20;
  constexpr int MOST_PAUSES = 100;
  for (int pauses = 0; flock(file, LOCK_EX | LOCK_NB) != 0; ++pauses) {
    if (errno != EWOULDBLOCK || pauses == MOST_PAUSES) return false;
    poll(nullptr, 0, PAUSE_MS);
  }
  return true;
}

/// Appends all of the text, on the disk, or leaves the file as it was. The latter only
/// with `locked`: else another run may have appended since, and its line would go.
void appendDurably(int file, const std::string& path, const std::string& text, bool locked) {
  struct stat before;
  if (fstat(file, &before) != 0) throwSystemError(path, errno);
  FdStreamBuf buffer(file);
  std::ostream out(&buffer);
  out << text;
  if (out && fsync(file) == 0) return;
  const int error = buffer.error() ? buffer.error() : errno;
  if (!locked || ftruncate(file, before.st_size) != 0) {
    // The unfinished line has the name of the server and no whole key, so it accepts no server.
    sshLog.warn("Unable to take an unfinished line out of " + path);
  }
  throwSystemError(path, error);
}

/// True when a name can stand in a line without meaning something else there.
bool isPlainName(const std::string& name) {
  return std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return c > ' ' && c < 0x7f &&
           std::string_view(",*?!|#@").find(static_cast<char>(c)) == std::string_view::npos;
  });
}

template <class Entries>
bool holds(const Entries& entries, const HostKey& key) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const auto& entry) { return entry.text == key.text(); });
}

}  // namespace

HostKey::HostKey(const std::string& blob)
    : type_(firstStringOf(blob)), text_(toBase64(blob)), fingerprint_("SHA256:") {
  const std::string sum = toBase64(sha256(blob));
  fingerprint_ += sum.substr(0, sum.find('='));
}

KnownHosts::KnownHosts(const std::string& path, const std::string& host, std::uint16_t port)
    : path_(path) {
  const std::string name = boost::to_lower_copy(host, std::locale::classic());
  if (port != DEFAULT_PORT) names_.push_back("[" + name + "]:" + std::to_string(port));
  names_.push_back(name);
  std::istringstream text(readWhole(path).value_or(""));
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) readLine(line, number);
}

void KnownHosts::readLine(const std::string& line, int number) {
  std::istringstream words(line);
  std::string names, type, text;
  words >> names;
  if (names.empty() || names[0] == '#') return;
  const std::string marker = names[0] == '@' ? names : "";
  if (!marker.empty()) words >> names;
  const auto skip = [&](const std::string& reason) {
    sshLog.info("Line " + std::to_string(number) + " of " + path_ + " is skipped: " + reason);
  };
  if (marker == "@cert-authority") return skip("certificates are not used");
  if (!marker.empty() && marker != "@revoked") return skip("unknown marker");
  words >> type >> text;
  const auto entriesFor = [&]() -> std::vector<Entry>* {
    if (matchesList(names, names_.front())) return marker.empty() ? &own_ : &revoked_;
    if (!matchesList(names, names_.back())) return nullptr;
    return marker.empty() ? &anyPort_ : &revoked_;
  };
  // A line that names the server and holds no proper key stays: the server counts as known,
  // and no key of it is.
  if (std::vector<Entry>* const entries = entriesFor()) entries->push_back({type, text});
}

KnownHosts::Verdict KnownHosts::judge(const HostKey& key) const {
  if (holds(revoked_, key)) return REVOKED;
  if (holds(own_, key) || holds(anyPort_, key)) return KNOWN;
  // Another port may be another server, with another key.
  return own_.empty() ? UNKNOWN : CHANGED;
}

std::vector<std::string> KnownHosts::types() const {
  std::vector<std::string> types;
  for (const auto* entries : {&own_, &anyPort_}) {
    for (const Entry& entry : *entries) types.push_back(entry.type);
  }
  return types;
}

void KnownHosts::add(const HostKey& key) {
  const std::string& name = names_.front();
  if (!isPlainName(name) || !isPlainName(key.type())) {
    throw std::runtime_error(path_ + ": no line can be made for this name");
  }
  const bool isNew = !readWhole(path_);
  const UniqueFd file(
      open(path_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644));
  if (!file) throwSystemError(path_, errno);
  const bool locked = lockForAppending(file.get());
  // In one write: lines of several runs do not mix. Another program's unfinished line ends
  // before it.
  const std::string before = endsInsideLine(file.get()) ? "\n" : "";
  appendDurably(file.get(), path_, before + name + " " + key.type() + " " + key.text() + "\n",
                locked);
  if (isNew && !syncDirectoryOf(path_)) {
    const int error = errno;
    throwSystemError(getDirectoryOf(path_), error);
  }
  own_.push_back({key.type(), key.text()});
}
