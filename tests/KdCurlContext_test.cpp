#include "ZuNetwork/KdCurlContext.h"

#include <type_traits>

#include "fakes/FakeCurlTest.h"

using KdCURL::KdCurlContext;
using testing::ElementsAre;

namespace {

static_assert(!std::is_copy_constructible_v<KdCurlContext>, "owns its handle alone");
static_assert(!std::is_copy_assignable_v<KdCurlContext>, "owns its handle alone");
static_assert(std::is_nothrow_destructible_v<KdCurlContext>, "cleaning up never throws");

using KdCurlContextTest = FakeCurlTest;

TEST_F(KdCurlContextTest, OwnsOneHandle) {
  {
    const KdCurlContext context;
    EXPECT_EQ(fake.Show(context.m_curl), "handle1");
    EXPECT_THAT(fake.Alive(), ElementsAre("handle1"));
  }
  EXPECT_THAT(Calls(), ElementsAre("easy_init", "easy_cleanup handle1"));
}

TEST_F(KdCurlContextTest, EachHasAHandleOfItsOwn) {
  const KdCurlContext first;
  {
    const KdCurlContext second;
    EXPECT_NE(first.m_curl, second.m_curl);
  }
  EXPECT_THAT(fake.Alive(), ElementsAre("handle1"));
}

TEST_F(KdCurlContextTest, WithoutAHandleNothingIsCleanedUp) {
  fake.nulls.insert("easy_init");
  {
    const KdCurlContext context;
    EXPECT_EQ(context.m_curl, nullptr);
  }
  EXPECT_THAT(Calls(), ElementsAre("easy_init"));
}

TEST(KdCurlContextAbsent, HoldsNothingWithoutLibcurl) {
  const LibraryFolder folder;
  folder.Run([&] {
    {
      const KdCurlContext context;
      EXPECT_EQ(context.m_curl, nullptr);
      folder.Install("complete");  // a clean-up would load it now
    }
    EXPECT_EQ(dlopen("libcurl.so", RTLD_LAZY | RTLD_NOLOAD), nullptr);
  });
}

}  // namespace
