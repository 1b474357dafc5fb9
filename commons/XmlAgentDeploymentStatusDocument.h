#pragma once

#include <string>

#include "commons/xml_wrap.h"

/// What a freshly deployed agent says of itself: the root "agentstatus" with a child
/// "statusfile". The program stores the document as it comes; this reader is for
/// those who want to look into it.
class XmlAgentDeploymentStatusDocument : public tXmlDtmDocument {
 public:
  /// Loads the file and checks its root. Throws what readFromFile and initFileDoc
  /// throw; a file without a byte is an empty document.
  explicit XmlAgentDeploymentStatusDocument(const std::string& fileName);

  /// The text of "statusfile". Throws tError_WrongContent.
  std::string getAgentDeploymentStatusFileName() const;
};
