#include "migrate/documents.h"

#include <fcntl.h>
#include <libxml/xmlreader.h>
#include <sys/stat.h>

#include <memory>

#include "commons/progress_text.h"
#include "commons/unique_fd.h"
#include "commons/xml_parse.h"

namespace migrate {

namespace {

const char* const MIGRATION_STATUS = "/migration.status";
const char* const DUMPING_STATUS = "/dumping-status.xml";
const char* const DUMP = "/dump.xml";

/// Some seconds to read. Who sends more wants to hold whoever asks.
constexpr off_t LARGEST_COUNTED_BYTES = 256 << 20;

xmlNodePtr firstNode(const tXmlDtmDocument& document, const char* expression) {
  const tXPathExpr found(document.document(), expression);
  const xmlNodeSetPtr nodes = found.getNodeSet();
  return nodes && nodes->nodeNr > 0 ? nodes->nodeTab[0] : nullptr;
}

/// The reader of an open file, which stays the caller's; null when there can be none.
std::unique_ptr<xmlTextReader, void (*)(xmlTextReaderPtr)> readerOf(const UniqueFd& file) {
  constexpr int OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  return {xmlReaderForFd(file.get(), nullptr, nullptr, OPTIONS), xmlFreeTextReader};
}

/// How many elements of the document, be it as long as it is, are what `isCounted` looks for.
int countElements(const std::string& path, bool (*isCounted)(xmlTextReaderPtr)) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_size > LARGEST_COUNTED_BYTES) {
    return 0;
  }
  const auto reader = readerOf(file);
  int count = 0;
  while (reader && xmlTextReaderRead(reader.get()) == 1) {
    if (xmlTextReaderNodeType(reader.get()) == XML_READER_TYPE_ELEMENT && isCounted(reader.get())) {
      ++count;
    }
  }
  return count;
}

bool isAt(xmlTextReaderPtr reader, int depth, const char* name) {
  return xmlTextReaderDepth(reader) == depth && fromXmlChar(xmlTextReaderConstName(reader)) == name;
}

/// True at <execution-result><message>.
bool isAtMessage(xmlTextReaderPtr reader) {
  return isAt(reader, 1, "message");
}

/// True at <dump><problems><problem severity="error">.
bool isAtError(xmlTextReaderPtr reader) {
  if (!isAt(reader, 2, "problem")) return false;
  const XmlText severity(xmlTextReaderGetAttribute(reader, toXmlChar("severity")));
  return severity && fromXmlChar(severity.get()) == "error";
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
  return countElements(session + "/" + resultLogOf(step), isAtMessage);
}

int countDumpErrors(const std::string& session) {
  return countElements(session + DUMP, isAtError);
}

std::string describeProgress(const std::string& session, Step step, const std::string& since) {
  const bool isDump = step == Step::DUMP;
  if (!isDump && step != Step::CONTENT) return "";
  const auto document = readDocument(session + (isDump ? DUMPING_STATUS : MIGRATION_STATUS), since);
  if (!document) return "";
  return isDump ? describeDump(*document) : describeTransfer(*document);
}

}  // namespace migrate
