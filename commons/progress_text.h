#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "commons/xml_wrap.h"

/// The progress of something that goes on, in one line for a person.

/// How far a transfer of files is. The numbers of the source host need not fit each other.
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

/// As "7 of 10 files left, 1.2 MB of 3.4 MB (35 %), 1.1 MB/s, 0:02 left, content/a", without
/// what is not known or not possible. What may be cut off comes last.
std::string describeTransfer(const TransferFigures& figures);

/// What a migration status says of the transfer of files; empty while there is none. Sizes and
/// the time left come from what is listed for the transfer, where the document has that.
std::string describeTransfer(const tXmlDtmDocument& migrationStatus);

/// What the agents' dumping status have in common, as "content, 2 of 5 done, 1.2 kB read,
/// a.example". Each may have more, or nothing that is known here.
std::string describeDump(const tXmlDtmDocument& dumpingStatus);

/// The document `path` when it is there, was written at `since` (as formatTime) or later and
/// can be read: others write such documents, and at any time.
std::optional<tXmlDtmDocument> readDocument(const std::string& path, const std::string& since);
