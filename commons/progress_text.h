#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "commons/xml_wrap.h"

/// Texts that describe the progress of an action in one line.

/// How far a transfer of files is. The numbers come from the source host and may contradict each
/// other.
struct TransferFigures {
  std::optional<std::int64_t> filesTotal;
  std::optional<std::int64_t> filesLeft;
  std::optional<std::int64_t> bytesTotal;
  std::optional<std::int64_t> bytesLeft;
  /// What has arrived; shown where the total is not known.
  std::optional<std::int64_t> bytesReceived;
  /// Bytes in a second.
  std::optional<std::int64_t> rate;
  /// The file that is being transferred.
  std::string file;
};

/// As "7 of 10 files left, 1.2 MB of 3.4 MB (35 %), 1.1 MB/s, 0:02 left, content/a". Unknown and
/// impossible numbers are left out. The name of the file comes last, since the end of the line may
/// be cut off.
std::string describeTransfer(const TransferFigures& figures);

/// The same for the transfer of files in a migration status; empty while there is none. Sizes and
/// the time left come from the listed sizes if the document has them.
std::string describeTransfer(const tXmlDtmDocument& migrationStatus);

/// Describes the dumping status of an agent, as "content, 2 of 5 done, 1.2 kB read, a.example".
/// Uses what the documents of all agents have in common; other content is ignored.
std::string describeDump(const tXmlDtmDocument& dumpingStatus);

/// Reads the document `path`. Nothing when it does not exist, was written before `since` (in the
/// form of formatTime) or cannot be parsed: other programs write such documents, at any time.
std::optional<tXmlDtmDocument> readDocument(const std::string& path, const std::string& since);
