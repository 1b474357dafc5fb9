#include "commons/XmlAgentDeploymentStatusDocument.h"

#include <boost/filesystem.hpp>

XmlAgentDeploymentStatusDocument::XmlAgentDeploymentStatusDocument(const std::string& fileName) {
  // The parser refuses a file without a byte. An agent that printed nothing left
  // one, and "the document is empty" is what there is to say of it.
  boost::system::error_code error;
  const bool empty = boost::filesystem::file_size(fileName, error) == 0 && !error;
  if (!empty) readFromFile(fileName.c_str());
  initFileDoc("agentstatus");
}

std::string XmlAgentDeploymentStatusDocument::getAgentDeploymentStatusFileName() const {
  return getNodeText(getRootNodeChild("statusfile"));
}
