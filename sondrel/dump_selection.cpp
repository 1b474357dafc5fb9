#include "sondrel/dump_selection.h"

#include "commons/log.h"

namespace {

/// Error callback of foreach_xmlnode: logs the error of a single node.
void reportXmlError(const ExTraceable& error) {
  theDebugLog->log(error);
}

/// The selected-objects file.
class tSondrelXmlDocument : public tXmlDocument {
 public:
  explicit tSondrelXmlDocument(const std::string& path) : tXmlDocument(path.c_str()) {}

  /// Appends the non-empty contents of the matching nodes to `list`.
  void appendNames(const std::string& expression, std::string& list) const {
    const tXPathExpr names(*this, expression);
    if (names.getNodeSet().empty()) return;
    tPeriodSeparatedListOperator append(list);
    foreach_xmlnode(names, append, reportXmlError);
  }

  /// The content of the first matching node; empty when there is none.
  std::string stringValue(const std::string& expression) const {
    const tXPathExpr value(*this, expression);
    return value.getNodeSet().empty() ? "" : value.getNode().content();
  }

  bool matches(const std::string& expression) const { return testXPathExpr(*this, expression); }
};

void appendNames(const std::string& names, std::string& list) {
  if (names.empty()) return;
  if (!list.empty()) list += ",";
  list += names;
}

/// Appends the argument that tells the agent to read a list from its standard input,
/// and the list as one line there.
class NameLists {
 public:
  NameLists(std::vector<std::string>& arguments, std::string& stdin_text)
      : arguments_(arguments), stdinText_(stdin_text) {}

  void append(const char* argument, const std::string& names) {
    if (names.empty()) return;
    arguments_.push_back(argument);
    stdinText_ += separator_ + names;
    separator_ = "\n";
  }

 private:
  std::vector<std::string>& arguments_;
  std::string& stdinText_;
  std::string separator_;
};

}  // namespace

void tPeriodSeparatedListOperator::operator()(XmlNodeRef node) {
  const std::string content = node.content();
  if (content.empty()) return;
  if (count_ > 0) list_ += ",";
  list_ += content;
  ++count_;
}

void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, int& only_mode, int& compression,
                              bool& server, bool& admin_info, bool& no_license) {
  const tSondrelXmlDocument file(path);
  file.appendNames("//domain/name/text()", domains);
  file.appendNames("//client/name/text()", clients);
  file.appendNames("//reseller/name/text()", resellers);
  if (file.matches("//server")) server = true;
  if (file.matches("//server/license")) no_license = true;
  if (file.matches("//admin-info")) admin_info = true;
  const std::string filter = file.stringValue("/*/parameters/@filter");
  if (filter == "only-mail") only_mode = ONLY_MAIL;
  // All programs that write these files spell it so.
  if (filter == "only-phosting") only_mode = ONLY_HOSTING;
  const std::string level = file.stringValue("/*/parameters/@compression-level");
  if (level == "do-not-compress") compression = NO_COMPRESSION;
  if (level == "standard") compression = STANDARD_COMPRESSION;
}

void getSelectedObjectsFromConfig(const config& config, std::string& domains, std::string& clients,
                                  std::string& resellers, int& only_mode, int& compression,
                                  bool& server, bool& admin_info, bool& no_license) {
  appendNames(config.domains, domains);
  appendNames(config.clients, clients);
  appendNames(config.resellers, resellers);
  if (config.only_mode != ALL_DATA) only_mode = config.only_mode;
  if (config.compression != DEFAULT_COMPRESSION) compression = config.compression;
  // Unconditional: for these the command line alone decides.
  server = config.server;
  admin_info = config.admin_info;
  no_license = config.no_license;
}

void prepareDumpOptions(const config& config, std::vector<std::string>& arguments,
                        std::string& stdin_text) {
  std::string domains;
  std::string clients;
  std::string resellers;
  int only_mode = ALL_DATA;
  int compression = DEFAULT_COMPRESSION;
  bool server = false;
  bool admin_info = false;
  bool no_license = false;
  if (!config.selected_objects_file.empty()) {
    parseSelectedObjectsFile(config.selected_objects_file, domains, clients, resellers, only_mode,
                             compression, server, admin_info, no_license);
  }
  getSelectedObjectsFromConfig(config, domains, clients, resellers, only_mode, compression, server,
                               admin_info, no_license);
  NameLists lists(arguments, stdin_text);
  lists.append("--dump-domains=-", domains);
  lists.append("--dump-clients=-", clients);
  lists.append("--dump-resellers=-", resellers);
  if (only_mode == ONLY_MAIL) arguments.push_back("--only-mail");
  if (only_mode == ONLY_HOSTING) arguments.push_back("--only-hosting");
  if (compression == NO_COMPRESSION) arguments.push_back("--no-compress");
  arguments.push_back("--include-app-distrib");
  if (server) arguments.push_back("--server");
  if (admin_info) arguments.push_back("--admin-info");
  if (no_license) arguments.push_back("--no-license");
}
