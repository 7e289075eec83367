#include "base/out_of_resources.h"

#include <gtest/gtest.h>
#include <uv.h>

namespace mivo {
namespace {

TEST(IsOutOfResources, KnowsWhatDoesNotGoAwayByAskingAgain) {
  for (const int status : {UV_EMFILE, UV_ENFILE, UV_ENOBUFS, UV_ENOMEM})
    EXPECT_TRUE(IsOutOfResources(status)) << uv_err_name(status);
  for (const int status : {UV_EOF, UV_EPROTO, UV_ECONNABORTED, UV_EAGAIN})
    EXPECT_FALSE(IsOutOfResources(status)) << uv_err_name(status);
  EXPECT_FALSE(IsOutOfResources(0));
}

}  // namespace
}  // namespace mivo
