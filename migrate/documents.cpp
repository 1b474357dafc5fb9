#include "migrate/documents.h"

#include <fcntl.h>
#include <libxml/xmlreader.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim_all.hpp>
#include <cerrno>
#include <functional>
#include <memory>

#include "commons/progress_text.h"
#include "commons/unique_fd.h"
#include "commons/xml_parse.h"

namespace migrate {

namespace {

const char* const MIGRATION_STATUS = "/migration.status";
const char* const DUMPING_STATUS = "/dumping-status.xml";
const char* const DUMP = "/dump.xml";

/// Parses in a few seconds; a larger document is not read.
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

enum ReadResult { COMPLETE, MISSING, NOT_READABLE };

/// Calls `visit` at each element of a document, as long as it is.
ReadResult forEachElement(const std::string& path,
                          const std::function<void(xmlTextReaderPtr)>& visit) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return errno == ENOENT ? MISSING : NOT_READABLE;
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_size > LARGEST_COUNTED_BYTES) {
    return NOT_READABLE;
  }
  const auto reader = readerOf(file);
  int found = reader ? xmlTextReaderRead(reader.get()) : -1;
  for (; found == 1; found = xmlTextReaderRead(reader.get())) {
    if (xmlTextReaderNodeType(reader.get()) == XML_READER_TYPE_ELEMENT) visit(reader.get());
  }
  return found == 0 ? COMPLETE : NOT_READABLE;
}

bool isAt(xmlTextReaderPtr reader, int depth, const char* name) {
  return xmlTextReaderDepth(reader) == depth && fromXmlChar(xmlTextReaderConstName(reader)) == name;
}

/// True at <execution-result><message>.
bool isAtMessage(xmlTextReaderPtr reader) {
  return isAt(reader, 1, "message");
}

std::string attributeAt(xmlTextReaderPtr reader, const char* name) {
  const XmlText value(xmlTextReaderGetAttribute(reader, toXmlChar(name)));
  return fromXmlChar(value.get());
}

/// Text of another host, as one line.
std::string oneLine(std::string text) {
  boost::trim_all_if(text, boost::is_any_of(" \t\r\n"));
  std::replace_if(text.begin(), text.end(), boost::is_any_of("\t\r\n"), ' ');
  return text;
}

std::string errorAt(xmlTextReaderPtr reader) {
  const XmlText text(xmlTextReaderReadString(reader));
  const std::string object = attributeAt(reader, "object");
  return oneLine((object.empty() ? "" : object + ": ") + fromXmlChar(text.get()));
}

/// Notes <dump><problems><problem severity="...">.
void noteProblem(xmlTextReaderPtr reader, DumpProblems& problems) {
  if (isAt(reader, 1, "problems")) problems.standing = DumpProblems::COUNTED;
  if (!isAt(reader, 2, "problem")) return;
  const std::string severity = attributeAt(reader, "severity");
  if (severity == "warning") ++problems.warnings;
  if (severity == "info") ++problems.notes;
  if (severity != "error") return;
  ++problems.errors;
  if (problems.firstErrors.size() < DumpProblems::MOST_SHOWN) {
    problems.firstErrors.push_back(errorAt(reader));
  }
}

std::string counted(int number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
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
  int count = 0;
  forEachElement(session + "/" + resultLogOf(step), [&](xmlTextReaderPtr reader) {
    if (isAtMessage(reader)) ++count;
  });
  return count;
}

std::string DumpProblems::summary() const {
  switch (standing) {
    case NOT_SAID: return "";
    case UNREADABLE: return "problems that cannot be counted: the document is damaged or too long";
    case COUNTED: break;
  }
  return counted(errors, "error") + ", " + counted(warnings, "warning") + ", " +
         counted(notes, "note");
}

DumpProblems readDumpProblems(const std::string& session) {
  DumpProblems problems;
  const ReadResult result = forEachElement(
      dumpFileIn(session), [&](xmlTextReaderPtr reader) { noteProblem(reader, problems); });
  if (result == NOT_READABLE) problems.standing = DumpProblems::UNREADABLE;
  return problems;
}

std::string dumpFileIn(const std::string& session) {
  return session + DUMP;
}

std::string dumpingStatusIn(const std::string& session) {
  return session + DUMPING_STATUS;
}

std::string describeProgress(const std::string& session, Step step, const std::string& since) {
  const bool isDump = step == Step::DUMP;
  if (!isDump && step != Step::CONTENT) return "";
  const auto document =
      readDocument(isDump ? dumpingStatusIn(session) : session + MIGRATION_STATUS, since);
  if (!document) return "";
  return isDump ? describeDump(*document) : describeTransfer(*document);
}

}  // namespace migrate
