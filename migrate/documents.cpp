#include "migrate/documents.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim_all.hpp>
#include <cerrno>
#include <functional>

#include "commons/progress_text.h"
#include "commons/unique_fd.h"
#include "commons/xml_parse.h"
#include "commons/xml_stream.h"

namespace migrate {

namespace {

const char* const MIGRATION_STATUS = "/migration.status";
const char* const DUMPING_STATUS = "/dumping-status.xml";
const char* const DUMP = "/dump.xml";

/// Parses in a few seconds; a larger document is not read.
constexpr off_t LARGEST_COUNTED_BYTES = 256 << 20;

enum ReadResult { COMPLETE, MISSING, NOT_READABLE };

/// Calls `visit` at each element of a document, in constant memory.
ReadResult forEachElement(const std::string& path,
                          const std::function<void(const XmlStreamElement&)>& visit) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return errno == ENOENT ? MISSING : NOT_READABLE;
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_size > LARGEST_COUNTED_BYTES) {
    return NOT_READABLE;
  }
  return forEachXmlElement(file.get(), visit) ? COMPLETE : NOT_READABLE;
}

/// Text of another host, as one line.
std::string oneLine(std::string text) {
  boost::trim_all_if(text, boost::is_any_of(" \t\r\n"));
  std::replace_if(text.begin(), text.end(), boost::is_any_of("\t\r\n"), ' ');
  return text;
}

std::string errorIn(const XmlStreamElement& problem) {
  const std::string object = problem.attribute("object");
  return oneLine((object.empty() ? "" : object + ": ") + problem.text());
}

/// Notes <dump><problems><problem severity="...">.
void noteProblem(const XmlStreamElement& element, DumpProblems& problems) {
  if (element.isAt(1, "problems")) problems.standing = DumpProblems::COUNTED;
  if (!element.isAt(2, "problem")) return;
  const std::string severity = element.attribute("severity");
  if (severity == "warning") ++problems.warnings;
  if (severity == "info") ++problems.notes;
  if (severity != "error") return;
  ++problems.errors;
  if (problems.firstErrors.size() < DumpProblems::MOST_SHOWN) {
    problems.firstErrors.push_back(errorIn(element));
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
  const std::vector<XmlNodeRef> last =
      tXPathExpr(*document, "/execution-result/message[last()]").getNodeSet();
  XmlNodeRef message = last.empty() ? XmlNodeRef() : last.front();
  while (message) {
    if (const XmlNodeRef text = getXmlChild(message, "description")) {
      causes.push_back(document->getNodeText(text));
    }
    message = getXmlChild(message, "message");
  }
  return causes;
}

int countProblems(const std::string& session, Step step) {
  int count = 0;
  forEachElement(session + "/" + resultLogOf(step), [&](const XmlStreamElement& element) {
    // <execution-result><message>
    if (element.isAt(1, "message")) ++count;
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
  const ReadResult result =
      forEachElement(dumpFileIn(session),
                     [&](const XmlStreamElement& element) { noteProblem(element, problems); });
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
