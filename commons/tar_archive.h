#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "commons/exceptions.h"

struct archive;
struct archive_entry;

DECLARE_ERROR_TAG(ArchiveDamaged, "The archive of several files is damaged: %1%");
DECLARE_ERROR_TAG(ArchiveNotMade, "The archive of several files cannot be made: %1%");

/// Reads a tar archive that another host sends, member by member, in constant memory.
///
/// The archive is hostile input. Nothing is unpacked here: the caller compares the name of each
/// member with what it asked for, and decides where the content goes.
class TarReader {
 public:
  /// Returns the next bytes of the archive, which stay valid until the next call; empty at its end.
  /// What it throws passes through the reader's functions.
  using Source = std::function<std::string_view()>;

  struct Member {
    /// As it is in the archive; may be anything.
    std::string name;
    /// Why the member is not a regular file with all its content; empty when it is one.
    std::string oddity;
    /// Bytes, as the archive says.
    std::int64_t size = 0;
  };

  /// Throws ArchiveDamaged when there is no memory for a reader.
  explicit TarReader(Source source);
  ~TarReader();
  TarReader(const TarReader&) = delete;
  TarReader& operator=(const TarReader&) = delete;

  /// Moves to the next member and skips the rest of the present one. False at the end of the
  /// archive, whether or not an end mark is there. Throws ArchiveDamaged.
  bool next();
  const Member& member() const { return member_; }

  /// The next bytes of the member's content, valid until the next call; empty after as many bytes
  /// as its size says. Throws ArchiveDamaged.
  std::string_view content();

 private:
  struct Free {
    void operator()(archive* handle) const noexcept;
  };

  static std::ptrdiff_t readSource(archive* handle, void* self, const void** buffer);
  void describeMember(archive_entry* entry, bool strange);
  /// Throws what the source threw, if it did, else ArchiveDamaged when `failed`.
  void check(const Place& place, bool failed);
  [[noreturn]] static void damaged(const Place& place, const std::string& why);

  Source source_;
  std::exception_ptr sourceFailure_;
  std::unique_ptr<archive, Free> archive_;
  bool opened_ = false;
  Member member_;
  std::int64_t taken_ = 0;
};

/// Writes a tar archive of regular files of mode 0666, which GNU tar unpacks.
class TarWriter {
 public:
  /// `out` must outlive the writer. Throws ArchiveNotMade.
  explicit TarWriter(std::ostream& out);
  ~TarWriter();
  TarWriter(const TarWriter&) = delete;
  TarWriter& operator=(const TarWriter&) = delete;

  /// Throws ArchiveNotMade.
  void add(const std::string& name, const std::string& content);
  /// Writes the end of the archive. Must be called once, after the last file. Throws
  /// ArchiveNotMade.
  void finish();

 private:
  struct Free {
    void operator()(archive* handle) const noexcept;
  };

  static std::ptrdiff_t writeOut(archive* handle, void* self, const void* bytes, std::size_t size);
  void check(const Place& place, bool failed);

  std::ostream& out_;
  bool outFailed_ = false;
  std::unique_ptr<archive, Free> archive_;
};
