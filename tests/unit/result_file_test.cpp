#include "sondrel/result_file.h"

#include "support.h"

TEST(ResultFileTest, IsReadableForOthersWhateverTheUmask) {
  const ScopedTempDir dir;
  const UmaskGuard mask(077);
  ResultFile file(dir / "result");
  file.stream() << "text";
  file.finish();
  EXPECT_EQ(readFile(dir / "result"), "text");
  EXPECT_EQ(ownerAndMode(dir / "result"), "0:0 644");
}

TEST(ResultFileTest, FailsAtTheEndWhenItCouldNotBeOpenedOrWritten) {
  const ScopedTempDir dir;
  EXPECT_EQ(whatOf<Exc<&FileWrite>>([&] { ResultFile(dir.path()).finish(); }),
            "Error during " + dir.path() + " write: Is a directory");
  EXPECT_EQ(whatOf<Exc<&FileWrite>>([&] {
              ResultFile file("/dev/full");
              file.stream() << "text";
              file.finish();
            }),
            "Error during /dev/full write: No space left on device");
}
