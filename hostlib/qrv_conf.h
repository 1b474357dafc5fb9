#pragma once

#include <map>
#include <memory>
#include <string>

/// The host configuration file /etc/qrv/qrv.conf: lines of a key, white space and
/// a value that runs to the end of the line; empty lines and lines that begin
/// with '#' are skipped.
///
/// The file is read once per process, on the first lookup, and kept. While it
/// cannot be read every lookup tries again, reports to the system log and finds
/// nothing. If a key is repeated, the last value wins.
///
/// The file belongs to the whole product, so keys that this program does not have are
/// ignored. A line that is one of its keys but for the case or the separator, and a value
/// of one of its keys that is out of range, are reported to the system log.

/// Slots of the variable table that this program reads. The other slots belong to
/// the other tools that share the numbering.
enum QrvConfVariable {
  QRV_CONF_MIN = 0,
  KORVO_MAILNAMES_D = 1,
  MAILMAN_VAR_D = 12,
  MAILMAN_ROOT_D = 13,
  PGSQL_BIN_D = 15,
  MYSQL_BIN_D = 16,
  HTTPD_VHOSTS_D = 27,
  PRODUCT_ROOT_D = 28,
  QRV_CONF_MAX = 29
};

using QrvConfValues = std::map<std::string, std::string>;

/// Reads a file of that form. When it cannot be read, returns null, writes a line to the system log
/// and makes qrvConfIsUnreadable() true. A malformed line is skipped, reported to the system log
/// and noted for qrvConfIsMalformed().
std::unique_ptr<const QrvConfValues> readQrvConf(const char* path);

/// Loads the file unless it is loaded already; false when it could not be read.
bool autoprepend();

/// The value of `name` in the file; null when the file has none or cannot be read.
/// Owned by the store, valid until the process ends.
const char* qrvConfGet(const char* name);

/// True when the file has a line that names `name`, a key of this program, and sets nothing:
/// its case or its separator is wrong. An operator meant to set the key.
bool qrvConfIsMalformed(const char* name);

/// True when the file exists, even if only as a dangling symbolic link, and cannot be read: its
/// settings are unknown then. A file that does not exist sets nothing.
bool qrvConfIsUnreadable();

/// The value in the file of the variable in slot `index`, cached per slot; null when the file has
/// none, or when the slot has no variable of this program.
const char* qrvConfGetByIndex(int index);

/// The same, or the compiled-in default when the file has no value.
const char* qrvConfGetDefaultByIndex(int index);
