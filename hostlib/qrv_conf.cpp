#include "hostlib/qrv_conf.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "hostlib/free_memory.h"
#include "hostlib/messlog.h"

namespace {

const char* const CONFIGURATION_FILE = "/etc/qrv/qrv.conf";

std::unique_ptr<const QrvConfValues> theStore;

/// The keys of the lines that were skipped in the file that was read last.
std::set<std::string> theMalformedKeys;

/// Whether the file that was read last is there and could not be read.
bool theFileIsUnreadable = false;

/// A key of this program and its allowed values: one of `words`, or an absolute path if there are
/// no words or `orPath` is set.
struct Key {
  std::string_view name;
  std::vector<std::string_view> words = {};
  bool orPath = false;
};

const std::vector<Key>& knownKeys() {
  static const std::vector<Key> keys = {
      {"KORVO_MAILNAMES_D"},
      {"MAILMAN_VAR_D"},
      {"MAILMAN_ROOT_D"},
      {"PGSQL_BIN_D"},
      {"MYSQL_BIN_D"},
      {"HTTPD_VHOSTS_D"},
      {"PRODUCT_ROOT_D"},
      {"DUMP_TMP_D"},
      {"SSH_IDENTITY_F", {"agent"}, true},
      {"SSH_KNOWN_HOSTS_F"},
      {"SSH_HOST_KEY_POLICY", {"ignore", "accept-new", "strict"}},
      {"CONTENT_VERIFY", {"yes", "no"}},
      {"CONTENT_BATCH", {"yes", "no"}},
  };
  return keys;
}

struct Variable {
  const char* name = nullptr;
  const char* defaultValue = nullptr;
  /// Points into the store once the variable was found there.
  const char* cached = nullptr;
};

std::array<Variable, QRV_CONF_MAX + 1> makeVariableTable() {
  std::array<Variable, QRV_CONF_MAX + 1> table{};
  table[QRV_CONF_MIN].name = "_MIN_POSSIBLE_QRV_CONF_VAR_NAME";
  table[KORVO_MAILNAMES_D] = {"KORVO_MAILNAMES_D", "/var/qmail/mailnames"};
  table[MAILMAN_VAR_D] = {"MAILMAN_VAR_D", "/var/lib/mailman"};
  table[MAILMAN_ROOT_D] = {"MAILMAN_ROOT_D", "/usr/lib/mailman"};
  table[PGSQL_BIN_D] = {"PGSQL_BIN_D", "/usr/lib/postgresql/9.1/bin"};
  table[MYSQL_BIN_D] = {"MYSQL_BIN_D", "/usr/bin"};
  table[HTTPD_VHOSTS_D] = {"HTTPD_VHOSTS_D", "/var/www/vhosts"};
  table[PRODUCT_ROOT_D] = {"PRODUCT_ROOT_D", "/opt/qrv"};
  table[QRV_CONF_MAX].name = "_MAX_POSSIBLE_QRV_CONF_VAR_NAME";
  return table;
}

std::array<Variable, QRV_CONF_MAX + 1> theVariables = makeVariableTable();

/// The slot's variable, or null for the range markers, the slots of other tools
/// and numbers outside the table.
Variable* findVariable(int index) {
  if (index <= QRV_CONF_MIN || index >= QRV_CONF_MAX) return nullptr;
  Variable& variable = theVariables[static_cast<std::size_t>(index)];
  return variable.name ? &variable : nullptr;
}

// Not isspace and isalnum: the file means the same in every locale.
constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";
constexpr std::string_view KEY_CHARACTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

bool isKeyCharacter(char c) {
  return KEY_CHARACTERS.find(c) != std::string_view::npos;
}

/// True when the word at `at` in `text` is the key, in upper or lower case.
bool hasWordAt(std::string_view text, std::size_t at, std::string_view key) {
  const std::size_t end = at + key.size();
  return end <= text.size() && strncasecmp(text.data() + at, key.data(), key.size()) == 0 &&
         (at == 0 || !isKeyCharacter(text[at - 1])) &&
         (end == text.size() || !isKeyCharacter(text[end]));
}

bool hasWord(std::string_view text, std::string_view key) {
  for (std::size_t at = 0; at + key.size() <= text.size(); ++at) {
    if (hasWordAt(text, at, key)) return true;
  }
  return false;
}

void skipMalformedLine(const char* path, const std::string& line, const std::string& key) {
  messlog2(std::string("malformed line in configuration file ") + path + ": " + line);
  theMalformedKeys.insert(key);
  for (const Key& known : knownKeys()) {
    if (hasWord(line, known.name)) theMalformedKeys.insert(std::string(known.name));
  }
}

/// Reports "product_root_d /srv" and "export PRODUCT_ROOT_D=/srv", which set nothing.
void reportNearMiss(const char* path, const std::string& line, const std::string& key,
                    const std::string& value) {
  for (const Key& known : knownKeys()) {
    if (key == known.name) return;
  }
  for (const Key& known : knownKeys()) {
    if (!hasWordAt(key, 0, known.name) && !hasWordAt(value, 0, known.name)) continue;
    messlog2("line in configuration file " + std::string(path) + " does not set " +
             std::string(known.name) + ": " + line);
    theMalformedKeys.insert(std::string(known.name));
  }
}

void parseLine(const char* path, const std::string& line, QrvConfValues& values) {
  const std::size_t start = line.find_first_not_of(WHITE_SPACE);
  if (start == std::string::npos || line[start] == '#') return;
  const std::size_t keyEnd = line.find_first_not_of(KEY_CHARACTERS, start);
  const std::string key = line.substr(start, keyEnd - start);
  if (keyEnd == start || keyEnd == std::string::npos ||
      WHITE_SPACE.find(line[keyEnd]) == std::string_view::npos) {
    skipMalformedLine(path, line, key);
    return;
  }
  const std::size_t valueStart = line.find_first_not_of(WHITE_SPACE, keyEnd);
  const std::string value = valueStart == std::string::npos ? "" : line.substr(valueStart);
  reportNearMiss(path, line, key, value);
  values[key] = value;
}

bool isInRange(const Key& key, const std::string& value) {
  const bool isPath = !value.empty() && value.front() == '/';
  if (key.words.empty() || (key.orPath && isPath)) return isPath;
  // The functions that read such words drop the blanks at the end.
  const std::string word = value.substr(0, value.find_last_not_of(WHITE_SPACE) + 1);
  return std::find(key.words.begin(), key.words.end(), word) != key.words.end();
}

std::string describeRange(const Key& key) {
  if (key.words.empty()) return "no absolute path";
  std::string text = "none of";
  for (const std::string_view word : key.words) text += " " + std::string(word);
  return key.orPath ? text + ", and no absolute path" : text;
}

void reportValuesOutOfRange(const char* path, const QrvConfValues& values) {
  for (const Key& key : knownKeys()) {
    const auto found = values.find(std::string(key.name));
    if (found == values.end() || isInRange(key, found->second)) continue;
    messlog2("value in configuration file " + std::string(path) + " is " + describeRange(key) +
             ": " + found->first + " " + found->second);
  }
}

/// True when `path` does not exist only because a symbolic link in it is dangling.
bool hasDanglingLink(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    struct stat status;
    if (lstat(part.c_str(), &status) != 0) return false;
    if (stat(part.c_str(), &status) != 0 || end == std::string::npos) return true;
  }
}

void reportUnreadable(const char* path, int error) {
  messlog2(std::string("unable to open configuration file ") + path + ": " + std::strerror(error) +
           "\n");
}

struct CloseFile {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

/// The next line without its line end; nothing at the end of the file and on a
/// read error, which ferror tells apart. Lines may be of any length.
std::optional<std::string> readLine(std::FILE* file) {
  char* raw = nullptr;
  std::size_t capacity = 0;
  const ssize_t length = getline(&raw, &capacity, file);
  const std::unique_ptr<char, FreeMemory> owner(raw);
  if (length < 0) return std::nullopt;
  std::string line(raw, static_cast<std::size_t>(length));
  if (!line.empty() && line.back() == '\n') line.pop_back();
  return line;
}

}  // namespace

std::unique_ptr<const QrvConfValues> readQrvConf(const char* path) {
  theFileIsUnreadable = true;
  theMalformedKeys.clear();
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path, "re"));
  if (!file) {
    const int error = errno;
    theFileIsUnreadable = error != ENOENT || hasDanglingLink(path);
    reportUnreadable(path, error);
    return nullptr;
  }
  auto values = std::make_unique<QrvConfValues>();
  while (const std::optional<std::string> line = readLine(file.get())) {
    parseLine(path, *line, *values);
  }
  if (std::ferror(file.get())) {
    reportUnreadable(path, errno);
    return nullptr;
  }
  theFileIsUnreadable = false;
  reportValuesOutOfRange(path, *values);
  return values;
}

bool autoprepend() {
  if (theStore) return true;
  try {
    theStore = readQrvConf(CONFIGURATION_FILE);
  } catch (const std::bad_alloc&) {
    messlog2("Not enough memory to allocate Korvo runtime configuration structure\n");
  }
  return theStore != nullptr;
}

const char* qrvConfGet(const char* name) {
  if (!autoprepend()) return nullptr;
  const auto found = theStore->find(name);
  return found == theStore->end() ? nullptr : found->second.c_str();
}

bool qrvConfIsMalformed(const char* name) {
  return autoprepend() && theMalformedKeys.count(name) != 0;
}

bool qrvConfIsUnreadable() {
  return !autoprepend() && theFileIsUnreadable;
}

const char* qrvConfGetByIndex(int index) {
  Variable* variable = findVariable(index);
  if (!variable) return nullptr;
  if (!variable->cached) variable->cached = qrvConfGet(variable->name);
  return variable->cached;
}

const char* qrvConfGetDefaultByIndex(int index) {
  if (const char* value = qrvConfGetByIndex(index)) return value;
  const Variable* variable = findVariable(index);
  return variable ? variable->defaultValue : nullptr;
}
