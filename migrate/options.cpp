#include "migrate/options.h"

#include <getopt.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <sstream>
#include <vector>

#include "commons/xml_wrap.h"
#include "migrate/state.h"

namespace migrate {

namespace {

/// The code of a setting is this number plus its index. All codes are larger than those of short
/// options, which are letters.
constexpr int FIRST_SETTING = 2000;

enum OptionCode {
  OPT_SESSION_PATH = 1000,
  OPT_SETTINGS,
  OPT_FROM,
  OPT_FULL,
  OPT_PASSWORD_FD,
  OPT_SUDO_PASSWORD_FD,
  OPT_KEY_PASSWORD_FD,
  OPT_HELP,
  OPT_VERSION
};

struct OwnOption {
  const char* name;
  const char* argument;
  OptionCode code;
  const char* help;
};

const OwnOption OWN_OPTIONS[] = {
    {"session-path", "DIR", OPT_SESSION_PATH, "the session directory; made if missing"},
    {"settings", "FILE", OPT_SETTINGS, "a file of lines \"name = value\" for the settings below"},
    {"from", "STEP", OPT_FROM, "make this step again, and all that follow"},
    {"full", nullptr, OPT_FULL, "dump whole archives, also where what has changed would do"},
    {"password-fd", "N", OPT_PASSWORD_FD, "read the password from this descriptor, one line"},
    {"sudo-password-fd", "N", OPT_SUDO_PASSWORD_FD, "the same for the password of sudo"},
    {"key-password-fd", "N", OPT_KEY_PASSWORD_FD, "the same for the passphrase of the key"},
    {"help", nullptr, OPT_HELP, "print this text"},
    {"version", nullptr, OPT_VERSION, "print the version"},
};

const char* const INTRODUCTION =
    "Usage: sondrel-migrate --session-path=DIR [--settings=FILE] [OPTION...]\n"
    "       sondrel-migrate [OPTION...] DIR\n"
    "       sondrel-migrate status DIR\n"
    "\n"
    "Moves sites from another host to this one: asks the host what it is (scout), copies\n"
    "the agent there (deploy), makes it dump what is wanted (dump) and fetches the files\n"
    "(content). Each step is a run of sondrel. With --restore it then makes the sites run on\n"
    "this host, by sondrel-restore (plan, apply, verify). Run again on the same session it\n"
    "goes on at the step that failed, with the settings it had: DIR is enough then. \"status\"\n"
    "shows how far a migration is.\n"
    "\n"
    "The agent stays on the source host until a migration is final: with --from=dump what has\n"
    "changed since is dumped and fetched. --final, with that last pass or by itself, removes\n"
    "the agent (remove).\n"
    "\n"
    "For example, everything from a host whose root may log in by a password:\n"
    "\n"
    "  sondrel-migrate --session-path=/var/lib/migration/1 --host=source.example \\\n"
    "      --login=root --dump-all\n";

const char* const PASSWORDS =
    "\n"
    "The passwords come from the descriptors given above, else from the environment\n"
    "(QRV_PASSWORD, QRV_SUDO_PASSWORD, QRV_KEY_PASSWORD), else they are asked for on the\n"
    "terminal. With --identity only what turns out to be needed is asked for. No option and\n"
    "no file takes one.\n"
    "\n"
    "Exit status: 0 done; 1 nothing could be begun; 2, 11 to 18 that of the run of sondrel\n"
    "that failed; 3 stopped by SIGUSR1; 4 another run is at work; 5 the restore needs\n"
    "decisions or packages; 6 the restore failed or differs; 128 and more a signal.";

[[noreturn]] void refuse(const std::string& text) {
  throw Exc<&MigrateBadSettings>(HERE) % text;
}

std::vector<option> longOptions() {
  std::vector<option> all;
  for (const OwnOption& own : OWN_OPTIONS) {
    all.push_back({own.name, own.argument ? required_argument : no_argument, nullptr, own.code});
  }
  for (std::size_t i = 0; i < settingKinds().size(); ++i) {
    const SettingKind& kind = settingKinds()[i];
    all.push_back({kind.name.text, kind.argument ? required_argument : optional_argument, nullptr,
                   FIRST_SETTING + static_cast<int>(i)});
  }
  all.push_back({nullptr, 0, nullptr, 0});
  return all;
}

std::string absolute(const std::string& path, const char* what) {
  if (path.empty()) refuse(std::string(what) + " needs a value");
  return boost::filesystem::absolute(path).string();
}

int parseDescriptor(const char* text, const char* name) {
  const std::size_t length = std::strlen(text);
  if (length == 0 || length > 6 || std::strspn(text, "0123456789") != length) {
    refuse(std::string("--") + name + " must be the number of an open descriptor");
  }
  return std::stoi(text);
}

Step parseStep(const std::string& name) {
  const std::optional<Step> step = stepNamed(name);
  if (!step) refuse("--from must be scout, deploy, dump, content, remove, plan, apply or verify");
  return *step;
}

/// The option that getopt_long rejects, as it was written, without its value.
std::string offender(char** argv) {
  const bool isShort = optopt > 0 && optopt < OPT_SESSION_PATH;
  if (isShort) return std::string("-") + static_cast<char>(optopt);
  const std::string text = argv[optind - 1];
  return toXmlSafeText(text.substr(0, text.find('=')));
}

class Parser {
 public:
  Request parse(int argc, char** argv) {
    const std::vector<option> options = longOptions();
    optind = 0;
    // The messages of getopt_long would repeat a value.
    opterr = 0;
    int code;
    while ((code = getopt_long(argc, argv, "+:h", options.data(), nullptr)) != -1) {
      if (code == ':') refuse(offender(argv) + " needs a value");
      if (code == '?') refuse("no such option: " + offender(argv));
      store(code == 'h' ? OPT_HELP : code);
    }
    if (optind < argc) takeOperands(argc - optind, argv + optind);
    return finish();
  }

 private:
  void store(int code) {
    switch (code) {
      case OPT_SESSION_PATH: request_.sessionPath = absolute(optarg, "--session-path"); break;
      case OPT_SETTINGS: settingsFile_ = absolute(optarg, "--settings"); break;
      case OPT_FROM: request_.from = parseStep(optarg); break;
      case OPT_FULL: request_.full = true; break;
      case OPT_PASSWORD_FD: request_.passwordFd = parseDescriptor(optarg, "password-fd"); break;
      case OPT_SUDO_PASSWORD_FD:
        request_.sudoPasswordFd = parseDescriptor(optarg, "sudo-password-fd");
        break;
      case OPT_KEY_PASSWORD_FD:
        request_.keyPasswordFd = parseDescriptor(optarg, "key-password-fd");
        break;
      case OPT_HELP: request_.command = Request::HELP; break;
      case OPT_VERSION: request_.command = Request::VERSION; break;
      default:
        given_.set(settingKinds()[static_cast<std::size_t>(code - FIRST_SETTING)].name,
                   optarg ? optarg : "");
    }
  }

  void takeOperands(int count, char** operands) {
    if (std::strcmp(operands[0], "status") != 0) {
      takeSession(count, operands[0]);
      return;
    }
    if (count != 2) refuse("status takes one session directory");
    request_.command = Request::SHOW_STATUS;
    request_.sessionPath = absolute(operands[1], "status");
  }

  /// Accepts only the session of a migration that has begun: a mistyped name makes no directory.
  void takeSession(int count, const char* operand) {
    const std::string path = boost::filesystem::absolute(operand).string();
    if (count != 1 || !request_.sessionPath.empty() || !State::exists(path)) {
      refuse("an argument that is no option");
    }
    request_.sessionPath = path;
  }

  Request finish() {
    if (request_.command != Request::MIGRATE) return request_;
    if (request_.sessionPath.empty()) refuse("--session-path is missing");
    if (!settingsFile_.empty()) request_.settings = readSettingsFile(settingsFile_);
    request_.settings.overrideBy(given_);
    return request_;
  }

  Request request_;
  std::string settingsFile_;
  Settings given_;
};

void appendLine(std::ostream& out, const char* name, const char* argument, const char* help) {
  constexpr std::size_t COLUMN = 32;
  std::string option = std::string("  --") + name;
  if (argument) option += std::string("=") + argument;
  option.resize(std::max(option.size() + 1, COLUMN), ' ');
  out << option << help << '\n';
}

}  // namespace

Request parseOptions(int argc, char** argv) {
  return Parser().parse(argc, argv);
}

std::string usageText() {
  std::ostringstream out;
  out << INTRODUCTION << '\n';
  for (const OwnOption& own : OWN_OPTIONS) appendLine(out, own.name, own.argument, own.help);
  out << "\nSettings, as options or in the file (switches may be given as =yes or =no):\n\n";
  for (const SettingKind& kind : settingKinds()) {
    appendLine(out, kind.name.text, kind.argument, kind.help);
  }
  out << PASSWORDS;
  return out.str();
}

}  // namespace migrate
