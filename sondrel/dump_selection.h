#pragma once

#include <string>
#include <vector>

#include "commons/xml_wrap.h"
#include "sondrel/options.h"

/// Which objects the agent must dump: reads the selected-objects file and the command line, and
/// makes the agent's arguments and its standard input of them.

/// Joins the contents of nodes, without the empty ones, with commas.
class tPeriodSeparatedListOperator : public tXmlOperator {
 public:
  /// Appends to `list`, which must outlive the operator.
  explicit tPeriodSeparatedListOperator(std::string& list) : list_(list) {}
  void operator()(XmlNodeRef node) override;

 private:
  std::string& list_;
  int count_ = 0;
};

/// Fills the selection from an XML file; values that the file does not give stay. Throws the errors
/// of the XML documents and queries.
void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, int& only_mode, int& compression,
                              bool& server, bool& admin_info, bool& no_license);

/// Merges the command line into the selection. Its flags replace the file's in any
/// case, its modes only when given; its names are added.
void getSelectedObjectsFromConfig(const config& config, std::string& domains, std::string& clients,
                                  std::string& resellers, int& only_mode, int& compression,
                                  bool& server, bool& admin_info, bool& no_license);

/// Appends what a dump of selected objects needs to the agent's arguments and to its
/// standard input. Throws what parseSelectedObjectsFile throws; nothing was appended
/// then.
void prepareDumpOptions(const config& config, std::vector<std::string>& arguments,
                        std::string& stdin_text);
