#include "commons/XmlAgentDeploymentStatusDocument.h"

#include <boost/filesystem.hpp>

XmlAgentDeploymentStatusDocument::XmlAgentDeploymentStatusDocument(const std::string& fileName) {
  // The parser refuses a file of 0 bytes, which an agent that printed nothing leaves behind. For
  // such a file initFileDoc reports the better error, "the document is empty".
  boost::system::error_code error;
  const bool empty = boost::filesystem::file_size(fileName, error) == 0 && !error;
  if (!empty) readFromFile(fileName.c_str());
  initFileDoc("agentstatus");
}

std::string XmlAgentDeploymentStatusDocument::getAgentDeploymentStatusFileName() const {
  return getNodeText(getRootNodeChild("statusfile"));
}
