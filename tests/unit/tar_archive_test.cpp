#include "commons/tar_archive.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support.h"

namespace {

constexpr std::size_t BLOCK = 512;

/// A source that gives a text in pieces of `size` bytes.
TarReader::Source piecesOf(const std::string& text, std::size_t size) {
  return [&text, size, given = std::size_t{0}]() mutable {
    const std::string_view piece = std::string_view(text).substr(given, size);
    given += piece.size();
    return piece;
  };
}

/// What a reader reports: for each member "NAME=CONTENT" or "NAME: ODDITY", then the end.
std::vector<std::string> read(const std::string& text, std::size_t pieceSize = 4096) {
  std::vector<std::string> told;
  TarReader reader(piecesOf(text, pieceSize));
  try {
    while (reader.next()) {
      if (!reader.member().oddity.empty()) {
        told.push_back(reader.member().name + ": " + reader.member().oddity);
        continue;
      }
      told.push_back(reader.member().name + "=");
      for (auto part = reader.content(); !part.empty(); part = reader.content()) {
        told.back().append(part);
      }
    }
    told.emplace_back("end");
  } catch (const Exc<&ArchiveDamaged>&) {
    told.emplace_back("damaged");
  }
  return told;
}

std::string archiveOf(const std::vector<std::pair<std::string, std::string>>& files) {
  std::ostringstream out;
  TarWriter writer(out);
  for (const auto& [name, content] : files) writer.add(name, content);
  writer.finish();
  return out.str();
}

/// The archive of one empty file, with a field of its header replaced.
std::string withField(std::size_t place, const std::string& value) {
  std::string text = archiveOf({{"./file", ""}});
  text.replace(place, value.size(), value);
  text.replace(148, 8, 8, ' ');
  unsigned int sum = 0;
  for (std::size_t i = 0; i < BLOCK; ++i) sum += static_cast<unsigned char>(text[i]);
  char digits[8];
  std::snprintf(digits, sizeof digits, "%06o", sum);
  text.replace(148, 7, std::string(digits, 7));
  return text;
}

constexpr std::size_t MODE_PLACE = 100;
constexpr std::size_t SIZE_PLACE = 124;
constexpr std::size_t TYPE_PLACE = 156;

}  // namespace

TEST(TarArchiveTest, BringsFilesOfAnyNameInPiecesOfAnySize) {
  const std::string content(100'000, 'x');
  const std::string text = archiveOf({{"./one", content},
                                      {"./empty", ""},
                                      {"./" + std::string(3000, 'n'), "long"},
                                      {"./\xff\n\\", "odd"}});
  const std::vector<std::string> expected = {"./one=" + content,
                                             "./empty=", "./" + std::string(3000, 'n') + "=long",
                                             "./\xff\n\\=odd", "end"};
  for (const std::size_t size : {std::size_t{1}, std::size_t{511}, text.size()}) {
    EXPECT_EQ(read(text, size), expected) << size;
  }
}

TEST(TarArchiveTest, CutAnywhereItGivesNoMoreThanThereWas) {
  const std::string text = archiveOf({{"./one", "11"}, {"./two", std::string(1000, '2')}});
  const std::vector<std::string> whole = read(text);
  for (std::size_t size = 0; size < text.size(); ++size) {
    const std::vector<std::string> told = read(text.substr(0, size));
    // Each member is complete, or the reader reports the damage.
    for (std::size_t i = 0; i + 1 < told.size(); ++i) {
      EXPECT_TRUE(told[i] == whole[i] || told.back() == "damaged") << size;
    }
    if (size < 2 * BLOCK) {
      EXPECT_EQ(told.back(), "damaged") << size;
    }
  }
}

TEST(TarArchiveTest, SaysWhatIsNoRegularFile) {
  using testing::ElementsAre;
  for (const char kind : {'2', '3', '4', '5', '6'}) {
    EXPECT_THAT(read(withField(TYPE_PLACE, std::string(1, kind))),
                ElementsAre("./file: it is no regular file", "end"))
        << kind;
  }
  EXPECT_THAT(read(withField(TYPE_PLACE, "1./one")),
              ElementsAre("./file: it is a hard link", "end"));
}

TEST(TarArchiveTest, TakesNoOtherFormat) {
  EXPECT_EQ(read("plain text, and no archive at all\n"), std::vector<std::string>{"damaged"});
  EXPECT_EQ(read("\x1f\x8b\x08" + archiveOf({{"./one", "1"}})),
            std::vector<std::string>{"damaged"});
  EXPECT_EQ(read("!<arch>\nfile/           0           0     0     644     1         `\n1\n"),
            std::vector<std::string>{"damaged"});
}

TEST(TarArchiveTest, EndsAtAMemberThatIsLargerThanTheArchive) {
  EXPECT_EQ(read(withField(SIZE_PLACE, "77777777777")).back(), "damaged");
  // Numbers in base 256: the largest, and a negative one.
  EXPECT_EQ(
      read(withField(SIZE_PLACE, "\x80" + std::string(3, '\0') + "\x7f" + std::string(7, '\xff')))
          .back(),
      "damaged");
  const std::vector<std::string> negative = read(withField(SIZE_PLACE, std::string(12, '\xff')));
  EXPECT_NE(negative.front(), "./file=") << negative.front();
}

TEST(TarArchiveTest, PassesOnWhatItsSourceThrows) {
  const std::string text = archiveOf({{"./one", std::string(10'000, '1')}});
  bool given = false;
  TarReader reader([&]() -> std::string_view {
    if (given) throw std::runtime_error("lost");
    given = true;
    return std::string_view(text).substr(0, 1000);
  });
  EXPECT_TRUE(reader.next());
  const auto readAll = [&] {
    while (!reader.content().empty()) {
    }
  };
  EXPECT_EQ(whatOf<std::runtime_error>(readAll), "lost");
}

TEST(TarArchiveTest, AsksItsSourceForNothingBeforeTheFirstMemberIsWanted) {
  bool asked = false;
  const TarReader reader([&]() -> std::string_view {
    asked = true;
    return {};
  });
  EXPECT_FALSE(asked);
}

TEST(TarArchiveTest, CannotBeWrittenToAStreamThatTakesNothing) {
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  EXPECT_THROW(
      {
        TarWriter writer(out);
        writer.add("./one", "1");
        writer.finish();
      },
      Exc<&ArchiveNotMade>);
}

TEST(TarArchiveTest, GivesMembersTheModeThatTheUmaskIsToLimit) {
  EXPECT_EQ(archiveOf({{"./file", ""}}).substr(MODE_PLACE, 7), "0000666");
}
