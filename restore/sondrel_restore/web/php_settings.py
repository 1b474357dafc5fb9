"""Decides which settings and variables a pool may have: none may give it more rights than its account has."""
from __future__ import annotations

import re

from sondrel_restore.web.judge import Judge, Refused

# Settings whose values are numbers, words and lists, so they reach no file or program.
PLAIN = frozenset("""
    allow_url_fopen allow_url_include arg_separator.output asp_tags assert.active auto_detect_line_endings
    date.timezone default_charset default_mimetype default_socket_timeout disable_classes disable_functions
    display_errors display_startup_errors enable_dl enable_post_data_reading error_append_string
    error_prepend_string error_reporting expose_php file_uploads html_errors iconv.input_encoding
    ignore_repeated_errors iconv.output_encoding ignore_user_abort implicit_flush input_encoding internal_encoding
    intl.default_locale log_errors mail.add_x_header max_execution_time max_file_uploads max_input_nesting_level
    max_input_time max_input_vars mbstring.internal_encoding mbstring.language memory_limit mysqli.default_host
    mysqli.default_port opcache.enable opcache.max_accelerated_files opcache.memory_consumption
    opcache.revalidate_freq opcache.validate_timestamps output_buffering output_encoding output_handler
    pcre.backtrack_limit pcre.jit pcre.recursion_limit post_max_size precision realpath_cache_size
    realpath_cache_ttl request_order sendmail_from serialize_precision session.auto_start session.cache_expire
    session.cache_limiter session.cookie_domain session.cookie_httponly session.cookie_lifetime
    session.cookie_path session.cookie_samesite session.cookie_secure session.gc_divisor session.gc_maxlifetime
    session.gc_probability session.hash_bits_per_character session.name session.sid_bits_per_character
    session.sid_length session.use_cookies session.use_only_cookies session.use_strict_mode session.use_trans_sid
    short_open_tag smtp_port track_errors upload_max_filesize url_rewriter.tags user_agent user_ini.cache_ttl
    user_ini.filename variables_order zend.assertions zend.exception_ignore_args zlib.output_compression
    zlib.output_compression_level
""".split())

# Settings that scripts must not be able to change.
ADMIN = frozenset(("open_basedir", "disable_functions", "disable_classes", "allow_url_include", "enable_dl",
                   "allow_url_fopen", "file_uploads"))

_PATHS = frozenset(("auto_append_file", "auto_prepend_file", "browscap", "error_log", "include_path", "open_basedir",
                    "session.save_path", "sys_temp_dir", "upload_tmp_dir", "opcache.file_cache"))

_SHARED = ("/tmp", "/var/tmp", "/var/lib/php/sessions", "/usr/share/php", "/dev/urandom")

# Variables of the process manager's environment that a pool may inherit.
_TAKEN_OVER = frozenset(("$PATH", "$HOSTNAME", "$TMP", "$TMPDIR", "$TEMP", "$LANG"))

_VARIABLE_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_]*")
_OF_THE_LOADER = re.compile(r"LD_.*|GCONV_PATH|BASH_ENV|ENV|PERL5?(?:OPT|LIB)|PYTHON.*|GLIBC_TUNABLES|MALLOC_.*|PHPRC"
                            r"|PHP_INI_SCAN_DIR|FPM_SOCKETS|USER|HOME|NOTIFY_SOCKET")
_CONTROLS = re.compile(r"[\x00-\x1f\x7f]")


def check_setting(judge: Judge, name: str, value: str) -> None:
    """Raises Refused if a setting of PHP is not allowed."""
    if _CONTROLS.search(value):
        raise Refused(f"{name} has a value with control characters")
    if name in PLAIN:
        return
    if name == "session.save_handler":
        if value not in ("files", "user"):
            raise Refused(f"{name} {value} needs another server")
        return
    if name not in _PATHS:
        raise Refused(f"the setting {name} is not among those that are taken")
    path = value.split(";")[-1] if name == "session.save_path" else value
    for each in path.split(":"):
        if each not in ("", ".", "none") and not _is_shared(each):
            judge.served_path(each.rstrip("/") or "/")


def _is_shared(path: str) -> bool:
    return ".." not in path.split("/") and any(path == root or path.startswith(root + "/") for root in _SHARED)


def check_variable(name: str, value: str) -> None:
    """Raises Refused if a variable of a pool's environment is not allowed."""
    if not _VARIABLE_NAME.fullmatch(name) or _OF_THE_LOADER.fullmatch(name):
        raise Refused(f"the variable {name} is not among those that are taken")
    if value.startswith("$") and value not in _TAKEN_OVER:
        raise Refused(f"the variable {name} would take over {value} of this host")


def quoted(value: str) -> str:
    """The value in the syntax of PHP-FPM. Raises Refused if it cannot be written unambiguously."""
    if _CONTROLS.search(value):
        raise Refused("a value with control characters")
    is_word = value.lower() in ("on", "yes", "true", "off", "no", "false", "null", "none")
    if re.fullmatch(r"[A-Za-z0-9_./:@,+-]+|\$[A-Z]+", value) and not is_word:
        return value
    if "'" not in value:
        return f"'{value}'"
    if not re.search(r'["$\\]', value):
        return f'"{value}"'
    raise Refused("a value with both kinds of quotes")
