#include "hostlib/qrv_conf.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <set>
#include <string_view>

#include "hostlib/free_memory.h"
#include "hostlib/messlog.h"

namespace {

const char* const CONFIGURATION_FILE = "/etc/qrv/qrv.conf";

std::unique_ptr<const QrvConfValues> theStore;

/// The keys of the lines that were skipped in the file that was read last.
std::set<std::string> theMalformedKeys;

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

void parseLine(const char* path, const std::string& line, QrvConfValues& values) {
  const std::size_t start = line.find_first_not_of(WHITE_SPACE);
  if (start == std::string::npos || line[start] == '#') return;
  const std::size_t keyEnd = line.find_first_not_of(KEY_CHARACTERS, start);
  if (keyEnd == start || keyEnd == std::string::npos ||
      WHITE_SPACE.find(line[keyEnd]) == std::string_view::npos) {
    messlog2(std::string("malformed line in configuration file ") + path + ": " + line);
    theMalformedKeys.insert(line.substr(start, keyEnd - start));
    return;
  }
  const std::size_t valueStart = line.find_first_not_of(WHITE_SPACE, keyEnd);
  values[line.substr(start, keyEnd - start)] =
      valueStart == std::string::npos ? "" : line.substr(valueStart);
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
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path, "re"));
  if (!file) {
    reportUnreadable(path, errno);
    return nullptr;
  }
  auto values = std::make_unique<QrvConfValues>();
  theMalformedKeys.clear();
  while (const std::optional<std::string> line = readLine(file.get())) {
    parseLine(path, *line, *values);
  }
  if (std::ferror(file.get())) {
    reportUnreadable(path, errno);
    return nullptr;
  }
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
