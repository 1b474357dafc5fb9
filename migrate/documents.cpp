#include "migrate/documents.h"

#include "commons/progress_text.h"

namespace migrate {

namespace {

const char* const MIGRATION_STATUS = "/migration.status";
const char* const DUMPING_STATUS = "/dumping-status.xml";

xmlNodePtr firstNode(const tXmlDtmDocument& document, const char* expression) {
  const tXPathExpr found(document.document(), expression);
  const xmlNodeSetPtr nodes = found.getNodeSet();
  return nodes && nodes->nodeNr > 0 ? nodes->nodeTab[0] : nullptr;
}

}  // namespace

const char* resultLogOf(Step step) {
  return step == Step::CONTENT ? "transfer.result" : "migration.result";
}

std::vector<std::string> readCauses(const std::string& session, Step step) {
  std::vector<std::string> causes;
  const auto document = readDocument(session + "/" + resultLogOf(step), "");
  if (!document) return causes;
  xmlNodePtr message = firstNode(*document, "/execution-result/message[last()]");
  while (message) {
    if (const xmlNodePtr text = getXmlChild(message, "description")) {
      causes.push_back(document->getNodeText(text));
    }
    message = getXmlChild(message, "message");
  }
  return causes;
}

int countProblems(const std::string& session, Step step) {
  const auto document = readDocument(session + "/" + resultLogOf(step), "");
  if (!document) return 0;
  const tXPathExpr found(document->document(), "/execution-result/message");
  const xmlNodeSetPtr nodes = found.getNodeSet();
  return nodes ? nodes->nodeNr : 0;
}

std::string describeProgress(const std::string& session, Step step, const std::string& since) {
  const bool isDump = step == Step::DUMP;
  if (!isDump && step != Step::CONTENT) return "";
  const auto document = readDocument(session + (isDump ? DUMPING_STATUS : MIGRATION_STATUS), since);
  if (!document) return "";
  return isDump ? describeDump(*document) : describeTransfer(*document);
}

}  // namespace migrate
