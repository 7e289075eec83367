#include "loop/handle.h"

#include <gtest/gtest.h>
#include <uv.h>

namespace mivo {
namespace {

// Only a loop whose handles are all closed can be closed; that each block was freed, and once, the sanitizers see.
class CheckedLoop {
 public:
  CheckedLoop() { uv_loop_init(&loop_); }
  ~CheckedLoop() {
    uv_run(&loop_, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop_), 0);
  }
  CheckedLoop(const CheckedLoop&) = delete;
  CheckedLoop& operator=(const CheckedLoop&) = delete;

  int InitTimer(uv_timer_t* timer) { return uv_timer_init(&loop_, timer); }
  const uv_loop_t* uv() const { return &loop_; }

 private:
  uv_loop_t loop_{};
};

TEST(Handle, PointsAtItsOwnerWhileOpen) {
  CheckedLoop loop;
  int owner = 0;
  Handle<uv_timer_t> handle;
  EXPECT_FALSE(handle);
  EXPECT_EQ(handle.get(), nullptr);
  EXPECT_EQ(handle.Open(&owner, [&](uv_timer_t* timer) { return loop.InitTimer(timer); }), 0);
  ASSERT_TRUE(handle);
  EXPECT_EQ(handle.get()->data, &owner);
  EXPECT_EQ(handle.get()->loop, loop.uv());
  handle.Close();
}

TEST(Handle, IsAsNewWhenTheInitCallFails) {
  CheckedLoop loop;
  int owner = 0;
  Handle<uv_timer_t> handle;
  EXPECT_EQ(handle.Open(&owner, [](uv_timer_t*) { return UV_EMFILE; }), UV_EMFILE);
  EXPECT_FALSE(handle);
  EXPECT_EQ(handle.get(), nullptr);
  EXPECT_EQ(handle.Open(&owner, [&](uv_timer_t* timer) { return loop.InitTimer(timer); }), 0);
  handle.Close();
}

TEST(Handle, ForgetsItsOwnerBeforeTheCloseHasFinished) {
  CheckedLoop loop;
  int owner = 0;
  Handle<uv_timer_t> handle;
  handle.Open(&owner, [&](uv_timer_t* timer) { return loop.InitTimer(timer); });
  uv_timer_t* const block = handle.get();
  handle.Close();
  EXPECT_FALSE(handle);
  EXPECT_EQ(block->data, nullptr);
  EXPECT_TRUE(uv_is_closing(reinterpret_cast<uv_handle_t*>(block)));
}

TEST(Handle, MayBeClosedRepeatedlyAndOpenedAgain) {
  CheckedLoop loop;
  Handle<uv_timer_t> handle;
  handle.Close();
  handle.Open(nullptr, [&](uv_timer_t* timer) { return loop.InitTimer(timer); });
  uv_timer_t* const first = handle.get();
  handle.Close();
  handle.Close();
  EXPECT_EQ(handle.Open(nullptr, [&](uv_timer_t* timer) { return loop.InitTimer(timer); }), 0);
  EXPECT_NE(handle.get(), first);
  handle.Close();
}

TEST(Handle, IsClosedWithItsOwner) {
  CheckedLoop loop;
  uv_timer_t* block = nullptr;
  {
    Handle<uv_timer_t> handle;
    handle.Open(&handle, [&](uv_timer_t* timer) { return loop.InitTimer(timer); });
    block = handle.get();
  }
  EXPECT_TRUE(uv_is_closing(reinterpret_cast<uv_handle_t*>(block)));
  EXPECT_EQ(block->data, nullptr);
}

}  // namespace
}  // namespace mivo
