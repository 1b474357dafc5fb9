#pragma once

#include <string>

#include "commons/xml_wrap.h"

/// The status that a freshly deployed agent reports: the root "agentstatus" with a child
/// "statusfile". This program stores the document unread; the class is for programs that read it.
class XmlAgentDeploymentStatusDocument : public tXmlDtmDocument {
 public:
  /// Loads the file and checks its root. Throws what readFromFile and initFileDoc throw; a file of
  /// 0 bytes counts as a document without a root.
  explicit XmlAgentDeploymentStatusDocument(const std::string& fileName);

  /// The text of "statusfile". Throws tError_WrongContent.
  std::string getAgentDeploymentStatusFileName() const;
};
