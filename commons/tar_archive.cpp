#include "commons/tar_archive.h"

#include <archive.h>
#include <archive_entry.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace {

/// tar reduces it by the umask of the login.
constexpr mode_t MEMBER_MODE = 0666;

/// The library's text for its last error.
std::string textOf(archive* handle) {
  const char* const text = handle ? archive_error_string(handle) : nullptr;
  return text ? text : "there is no memory for it";
}

struct FreeEntry {
  void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};

/// Why the member cannot be stored as a file of its own; empty when it can.
std::string oddityOf(archive_entry* entry) {
  if (archive_entry_hardlink(entry)) return "it is a hard link";
  if (archive_entry_filetype(entry) != AE_IFREG) return "it is no regular file";
  if (archive_entry_sparse_count(entry) > 0) return "it has holes";
  if (archive_entry_size_is_set(entry) == 0 || archive_entry_size(entry) < 0)
    return "it has no size";
  return {};
}

}  // namespace

// --- TarReader ---

void TarReader::Free::operator()(archive* handle) const noexcept {
  archive_read_free(handle);
}

TarReader::TarReader(Source source) : source_(std::move(source)), archive_(archive_read_new()) {
  check({HERE}, !archive_ || archive_read_support_filter_none(archive_.get()) != ARCHIVE_OK ||
                    archive_read_support_format_tar(archive_.get()) != ARCHIVE_OK);
}

TarReader::~TarReader() = default;

/// Called by the library, through which no exception may pass: `check` throws it later.
std::ptrdiff_t TarReader::readSource(archive* handle, void* self, const void** buffer) {
  auto& reader = *static_cast<TarReader*>(self);
  try {
    const std::string_view bytes = reader.source_();
    *buffer = bytes.data();
    return static_cast<std::ptrdiff_t>(bytes.size());
  } catch (...) {
    reader.sourceFailure_ = std::current_exception();
    archive_set_error(handle, EIO, "the source of the archive failed");
    return ARCHIVE_FATAL;
  }
}

bool TarReader::next() {
  if (!opened_) {
    // Opening reads from the source, so it is done here and not in the constructor.
    check({HERE},
          archive_read_open(archive_.get(), this, nullptr, readSource, nullptr) != ARCHIVE_OK);
    opened_ = true;
  }
  archive_entry* entry = nullptr;
  const int status = archive_read_next_header(archive_.get(), &entry);
  check({HERE}, status != ARCHIVE_OK && status != ARCHIVE_WARN && status != ARCHIVE_EOF);
  if (status == ARCHIVE_EOF) return false;
  describeMember(entry, status == ARCHIVE_WARN);
  return true;
}

void TarReader::describeMember(archive_entry* entry, bool strange) {
  const char* const name = archive_entry_pathname(entry);
  member_.name = name ? name : "";
  member_.oddity = strange ? textOf(archive_.get()) : oddityOf(entry);
  member_.size = archive_entry_size(entry);
  taken_ = 0;
}

std::string_view TarReader::content() {
  const void* bytes = nullptr;
  std::size_t size = 0;
  la_int64_t offset = 0;
  int status = ARCHIVE_OK;
  do {
    status = archive_read_data_block(archive_.get(), &bytes, &size, &offset);
  } while (status == ARCHIVE_OK && size == 0);
  check({HERE}, status != ARCHIVE_OK && status != ARCHIVE_EOF);
  if (status == ARCHIVE_EOF) {
    if (taken_ != member_.size) damaged({HERE}, "a member is shorter than it says");
    return {};
  }
  if (offset != taken_) damaged({HERE}, "a member is not in one piece");
  taken_ += static_cast<std::int64_t>(size);
  return {static_cast<const char*>(bytes), size};
}

void TarReader::check(const Place& place, bool failed) {
  if (sourceFailure_) std::rethrow_exception(std::exchange(sourceFailure_, nullptr));
  if (failed) damaged(place, textOf(archive_.get()));
}

void TarReader::damaged(const Place& place, const std::string& why) {
  throw Exc<&ArchiveDamaged>(place) % why;
}

// --- TarWriter ---

void TarWriter::Free::operator()(archive* handle) const noexcept {
  archive_write_free(handle);
}

TarWriter::TarWriter(std::ostream& out) : out_(out), archive_(archive_write_new()) {
  check({HERE},
        !archive_ || archive_write_set_format_gnutar(archive_.get()) != ARCHIVE_OK ||
            archive_write_set_bytes_per_block(archive_.get(), 0) != ARCHIVE_OK ||
            archive_write_open(archive_.get(), this, nullptr, writeOut, nullptr) != ARCHIVE_OK);
}

TarWriter::~TarWriter() = default;

/// Hides failures from the library, which would never free the memory of an open archive after one.
/// `check` reports them.
std::ptrdiff_t TarWriter::writeOut(archive*, void* self, const void* bytes, std::size_t size) {
  auto& writer = *static_cast<TarWriter*>(self);
  try {
    if (!writer.outFailed_ &&
        !writer.out_.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size))) {
      writer.outFailed_ = true;
    }
  } catch (...) {
    // No exception may pass through the library.
    writer.outFailed_ = true;
  }
  return static_cast<std::ptrdiff_t>(size);
}

void TarWriter::add(const std::string& name, const std::string& content) {
  const std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
  check({HERE}, !entry);
  archive_entry_set_pathname(entry.get(), name.c_str());
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), MEMBER_MODE);
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
  archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
  check({HERE}, archive_write_header(archive_.get(), entry.get()) != ARCHIVE_OK);
  const la_ssize_t written = archive_write_data(archive_.get(), content.data(), content.size());
  check({HERE}, written != static_cast<la_ssize_t>(content.size()));
}

void TarWriter::finish() {
  check({HERE}, archive_write_close(archive_.get()) != ARCHIVE_OK);
}

void TarWriter::check(const Place& place, bool failed) {
  if (outFailed_) throw Exc<&ArchiveNotMade>(place) % "it cannot be written";
  if (failed) throw Exc<&ArchiveNotMade>(place) % textOf(archive_.get());
}
