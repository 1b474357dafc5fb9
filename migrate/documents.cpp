#include "migrate/documents.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <cstdint>
#include <optional>

#include "commons/xml_wrap.h"
#include "migrate/figures.h"

namespace migrate {

namespace {

/// The agent writes its status as it likes; a longer one is none that a line could show.
constexpr off_t LARGEST_DOCUMENT_BYTES = 1 << 20;

const char* const MIGRATION_STATUS = "/migration.status";
const char* const DUMPING_STATUS = "/dumping-status.xml";

/// The document when it is there, was written at `since` or later and can be read.
std::optional<tXmlDtmDocument> readDocument(const std::string& path, const std::string& since) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_size > LARGEST_DOCUMENT_BYTES || formatTime(status.st_mtime) < since) {
    return std::nullopt;
  }
  try {
    return tXmlDtmDocument(path.c_str());
  } catch (const ExTraceable&) {
    return std::nullopt;
  }
}

std::string attributeOf(const tXmlDtmDocument& document, xmlNodePtr node, const char* name) {
  return xmlHasProp(node, toXmlChar(name)) ? document.getAttribute(node, name) : "";
}

std::optional<std::int64_t> numberOf(const tXmlDtmDocument& document, xmlNodePtr node,
                                     const char* name) {
  std::int64_t number = 0;
  const std::string text = attributeOf(document, node, name);
  if (!boost::conversion::try_lexical_convert(text, number)) return std::nullopt;
  return number;
}

xmlNodePtr firstNode(const tXmlDtmDocument& document, const char* expression) {
  const tXPathExpr found(document.document(), expression);
  const xmlNodeSetPtr nodes = found.getNodeSet();
  return nodes && nodes->nodeNr > 0 ? nodes->nodeTab[0] : nullptr;
}

void append(std::string& line, const std::string& part) {
  if (part.empty()) return;
  if (!line.empty()) line += ", ";
  line += part;
}

std::string percentage(std::int64_t done, std::int64_t total) {
  return std::to_string(
             static_cast<int>(static_cast<double>(done) / static_cast<double>(total) * 100)) +
         " %";
}

/// The list's figures are those of the source host: they need not fit each other.
std::string describeSizes(std::int64_t total, std::int64_t left) {
  if (total <= 0 || left < 0 || left > total) return "";
  const std::int64_t done = total - left;
  return formatBytes(done) + " of " + formatBytes(total) + " (" + percentage(done, total) + ")";
}

std::string describeRate(std::int64_t rate, std::optional<std::int64_t> left) {
  if (rate <= 0) return "";
  std::string text = formatBytes(rate) + "/s";
  if (left && *left >= 0) text += ", " + formatDuration(*left / rate) + " left";
  return text;
}

std::string describeTransfer(const tXmlDtmDocument& document) {
  const xmlNodePtr files = firstNode(document, "/migration-status/transfer/files");
  if (!files) return "";
  std::string line;
  const auto total = numberOf(document, files, "total");
  const auto left = numberOf(document, files, "left");
  if (total && left) {
    append(line, std::to_string(*total - *left) + " of " + std::to_string(*total) + " files");
  }
  const auto sizeTotal = numberOf(document, files, "size-total");
  const auto sizeLeft = numberOf(document, files, "size-left");
  if (sizeTotal && sizeLeft) append(line, describeSizes(*sizeTotal, *sizeLeft));
  if (const auto rate = numberOf(document, files->parent, "speed")) {
    append(line, describeRate(*rate, sizeLeft));
  }
  if (const xmlNodePtr current = firstNode(document,
                                           "/migration-status/transfer/files"
                                           "/current-file")) {
    append(line, document.getNodeText(current));
  }
  return line;
}

/// What agents have in common; each has a format of its own.
std::string describeDump(const tXmlDtmDocument& document) {
  const xmlNodePtr root = xmlDocGetRootElement(document.document());
  if (!root) return "";
  std::string line = attributeOf(document, root, "stage");
  const auto done = numberOf(document, root, "done");
  const auto total = numberOf(document, root, "total");
  if (done && total) {
    append(line, std::to_string(*done) + " of " + std::to_string(*total) + " done");
  }
  const auto bytes = numberOf(document, root, "bytes");
  if (bytes && *bytes > 0) append(line, formatBytes(*bytes) + " read");
  append(line, attributeOf(document, root, "object"));
  return line;
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
