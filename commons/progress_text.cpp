#include "commons/progress_text.h"

#include <sys/stat.h>

#include <boost/lexical_cast/try_lexical_convert.hpp>

#include "commons/human_readable.h"

namespace {

/// An agent may write any status; a larger one has nothing that a line could show.
constexpr off_t LARGEST_DOCUMENT_BYTES = 1 << 20;

std::string attributeOf(const tXmlDtmDocument& document, XmlNodeRef node, const char* name) {
  return document.findAttribute(node, name).value_or("");
}

std::optional<std::int64_t> numberOf(const tXmlDtmDocument& document, XmlNodeRef node,
                                     const char* name) {
  std::int64_t number = 0;
  const std::string text = attributeOf(document, node, name);
  if (!boost::conversion::try_lexical_convert(text, number)) return std::nullopt;
  return number;
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

std::string describeFiles(const TransferFigures& figures) {
  if (!figures.filesTotal || !figures.filesLeft) return "";
  return std::to_string(*figures.filesLeft) + " of " + std::to_string(*figures.filesTotal) +
         " files left";
}

std::string describeSizes(const TransferFigures& figures) {
  const std::int64_t total = figures.bytesTotal.value_or(0);
  const std::int64_t left = figures.bytesLeft.value_or(-1);
  if (total > 0 && left >= 0 && left <= total) {
    const std::int64_t done = total - left;
    return formatBytes(done) + " of " + formatBytes(total) + " (" + percentage(done, total) + ")";
  }
  return figures.bytesReceived ? formatBytes(*figures.bytesReceived) : "";
}

std::string describeRate(const TransferFigures& figures) {
  const std::int64_t rate = figures.rate.value_or(-1);
  if (rate < 0) return "";
  std::string text = formatBytes(rate) + "/s";
  const std::int64_t left = figures.bytesLeft.value_or(-1);
  if (rate > 0 && left >= 0) text += ", " + formatDuration(left / rate) + " left";
  return text;
}

}  // namespace

std::string describeTransfer(const TransferFigures& figures) {
  std::string line;
  append(line, describeFiles(figures));
  append(line, describeSizes(figures));
  append(line, describeRate(figures));
  append(line, figures.file);
  return line;
}

std::string describeTransfer(const tXmlDtmDocument& migrationStatus) {
  const XmlNodeRef root = migrationStatus.rootElement();
  const XmlNodeRef transfer = root ? getXmlChild(root, "transfer") : XmlNodeRef();
  const XmlNodeRef files = transfer ? getXmlChild(transfer, "files") : XmlNodeRef();
  if (!files) return "";
  TransferFigures figures;
  figures.filesTotal = numberOf(migrationStatus, files, "total");
  figures.filesLeft = numberOf(migrationStatus, files, "left");
  figures.bytesTotal = numberOf(migrationStatus, files, "listed-total");
  figures.bytesLeft = numberOf(migrationStatus, files, "listed-left");
  // These begin with the unpacked size of the content and are reduced by the received bytes: only
  // their difference is a number of transferred bytes.
  const auto unpacked = numberOf(migrationStatus, files, "size-total");
  const auto unpackedLeft = numberOf(migrationStatus, files, "size-left");
  std::int64_t received = 0;
  if (unpacked && unpackedLeft && !__builtin_sub_overflow(*unpacked, *unpackedLeft, &received) &&
      received > 0) {
    figures.bytesReceived = received;
  }
  const auto speed = numberOf(migrationStatus, transfer, "speed");
  // There is no speed in the first second.
  if (speed && *speed > 0) figures.rate = speed;
  if (const XmlNodeRef current = getXmlChild(files, "current-file")) {
    figures.file = migrationStatus.getNodeText(current);
  }
  return describeTransfer(figures);
}

std::string describeDump(const tXmlDtmDocument& dumpingStatus) {
  const XmlNodeRef root = dumpingStatus.rootElement();
  if (!root) return "";
  std::string line = attributeOf(dumpingStatus, root, "stage");
  const auto done = numberOf(dumpingStatus, root, "done");
  const auto total = numberOf(dumpingStatus, root, "total");
  if (done && total) {
    append(line, std::to_string(*done) + " of " + std::to_string(*total) + " done");
  }
  const auto bytes = numberOf(dumpingStatus, root, "bytes");
  if (bytes && *bytes > 0) append(line, formatBytes(*bytes) + " read");
  append(line, attributeOf(dumpingStatus, root, "object"));
  return line;
}

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
