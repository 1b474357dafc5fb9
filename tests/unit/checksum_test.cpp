#include "commons/checksum.h"

#include <fstream>
#include <sstream>

#include "commons/exceptions.h"
#include "support.h"

namespace {

const std::pair<std::string, std::string> SUMS[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
    {std::string("\0", 1), "93b885adfe0da089cdf634904fd59f71"},
};

/// Gives one block, and fails when more is read.
class BreakingBuffer : public std::stringbuf {
 public:
  BreakingBuffer() : std::stringbuf(std::string(100, 'x')) {}

 protected:
  int_type underflow() override { throw std::runtime_error("broken"); }
};

}  // namespace

TEST(Md5SumTest, OfATextAndOfAStreamIs32LowerCaseDigits) {
  for (const auto& [text, sum] : SUMS) {
    EXPECT_EQ(countMd5Sum(text), sum);
    std::istringstream stream(text);
    EXPECT_EQ(countMd5Sum(stream), sum);
  }
}

TEST(Md5SumTest, OfAStreamIsTheSameWhateverTheNumberOfBlocks) {
  for (const std::size_t size : {1u, 4095u, 4096u, 4097u, 8191u, 8192u, 8193u, 100000u}) {
    std::string text;
    while (text.size() < size) text += static_cast<char>(text.size() * 7);
    std::istringstream stream(text);
    EXPECT_EQ(countMd5Sum(stream), countMd5Sum(text)) << size;
  }
}

TEST(Md5SumTest, IsCountedFromWhereTheStreamStands) {
  std::istringstream stream("skipped abc");
  stream.ignore(8);
  EXPECT_EQ(countMd5Sum(stream), countMd5Sum(std::string("abc")));
}

TEST(Md5SumTest, ShowsLifeAfterEachBlock) {
  std::istringstream stream(std::string(3 * 4096 + 1, 'x'));
  int calls = 0;
  countMd5Sum(stream, [&] { ++calls; });
  EXPECT_EQ(calls, 4);
}

TEST(Md5SumTest, FailsWhenTheStreamBreaks) {
  BreakingBuffer buffer;
  std::istream stream(&buffer);
  EXPECT_EQ(whatOf<Exc<&StreamRead>>([&] { countMd5Sum(stream); }),
            "Cannot read data from the stream");
}

TEST(Md5SumTest, FailsForADirectory) {
  std::ifstream directory("/mnt");
  EXPECT_EQ(whatOf<Exc<&StreamRead>>([&] { countMd5Sum(directory); }),
            "Cannot read data from the stream");
}

TEST(Md5SumTest, FailsForAFileThatCouldNotBeOpened) {
  std::ifstream missing("/mnt/missing");
  EXPECT_EQ(whatOf<Exc<&StreamRead>>([&] { countMd5Sum(missing); }),
            "Cannot read data from the stream");
}

TEST(Md5SumTest, GrowsWithEachPart) {
  Md5Sum sum;
  EXPECT_EQ(sum.size(), 0);
  for (const std::string part : {"message", "", " ", "digest"}) sum.add(part.data(), part.size());
  EXPECT_EQ(sum.size(), 14);
  EXPECT_EQ(sum.finish(), countMd5Sum(std::string("message digest")));
}

TEST(Bin2AsciiTest, WritesEachByteAsTwoLowerCaseDigits) {
  const unsigned char bytes[] = {0x00, 0x01, 0x0F, 0x10, 0x7F, 0x80, 0xAB, 0xFF};
  EXPECT_EQ(bin2ascii(bytes, sizeof bytes), "00010f107f80abff");
  EXPECT_EQ(bin2ascii(bytes, 0), "");
}
