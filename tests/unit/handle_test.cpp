#include "transport/handle.h"
#include "support.h"

namespace {

int freed = 0;
void countFreed(int* /*handle*/) {
  ++freed;
}

using CountedHandle = Handle<int, countFreed>;

}  // namespace

TEST(HandleTest, RefusesNullAndFreesNothing) {
  freed = 0;
  EXPECT_EQ(whatOf<Exc<&InvalidHandle>>([] { CountedHandle handle(nullptr); }),
            "Invalid handle passed");
  EXPECT_EQ(freed, 0);
}

TEST(HandleTest, FreesItsHandleOnce) {
  freed = 0;
  int raw = 0;
  {
    const CountedHandle handle(&raw);
    EXPECT_EQ(handle.get(), &raw);
    EXPECT_EQ(freed, 0);
  }
  EXPECT_EQ(freed, 1);
}

TEST(HandleTest, FreesTextThatCameFromMalloc) {
  // The sanitizers report an error unless it is freed with free.
  const Handle<char, DefaultDestructionFunc<char>> text(strdup("password,keyboard-interactive"));
  EXPECT_STREQ(text.get(), "password,keyboard-interactive");
}
