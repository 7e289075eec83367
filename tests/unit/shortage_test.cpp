#include "base/shortage.h"

#include <gtest/gtest.h>
#include <uv.h>

namespace mivo {
namespace {

TEST(IsShortage, KnowsWhatDoesNotGoAwayByAskingAgain) {
  for (const int status : {UV_EMFILE, UV_ENFILE, UV_ENOBUFS, UV_ENOMEM})
    EXPECT_TRUE(IsShortage(status)) << uv_err_name(status);
  for (const int status : {UV_EOF, UV_EPROTO, UV_ECONNABORTED, UV_EAGAIN})
    EXPECT_FALSE(IsShortage(status)) << uv_err_name(status);
  EXPECT_FALSE(IsShortage(0));
}

}  // namespace
}  // namespace mivo
