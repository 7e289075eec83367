#include "calls/post_answers.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "transport/envelope.h"
#include "unit/live_bytes.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Payload;

TEST(PostAnswers, TakeOneAnswerForEachPost) {
  PostAnswers posts;
  EXPECT_FALSE(posts.Take(9));
  posts.Expect(9);
  posts.Expect(9);
  EXPECT_TRUE(posts.Take(9));
  EXPECT_TRUE(posts.Take(9));
  EXPECT_FALSE(posts.Take(9));
  posts.Expect(9);
  EXPECT_TRUE(posts.Take(9));
}

TEST(PostAnswers, CountEachKeyAlone) {
  PostAnswers posts;
  posts.Expect(9);
  EXPECT_FALSE(posts.Take(8));
  EXPECT_FALSE(posts.Take(0));
  posts.Expect(-5);
  EXPECT_TRUE(posts.Take(-5));
  EXPECT_TRUE(posts.Take(9));
}

TEST(PostAnswers, CountForSeveralThreads) {
  PostAnswers posts;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int post = 0; post < 500; ++post)
        posts.Expect(7);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  int answers = 0;
  while (posts.Take(7))
    ++answers;
  EXPECT_EQ(answers, 2000);
}

TEST(PostAnswers, TellTheAnswerOfACloseFromThoseOfPostsUnderItsKey) {
  PostAnswers answers;
  const std::string of_close = CloseAnswer(9);
  const std::string of_post = Payload().KeyString("s_c_sw_name", "retval").KeyInt("s_c_sw_threadid", 9);
  answers.Expect(9);
  answers.ExpectOfClose(9);
  EXPECT_FALSE(answers.TakeOfClose(9, of_post));
  EXPECT_TRUE(answers.TakeOfClose(9, of_close));
  EXPECT_FALSE(answers.TakeOfClose(9, of_close)) << "once for each call";
  EXPECT_TRUE(answers.Take(9));
}

TEST(PostAnswers, TakeTheAnswerOfACloseOnlyWhereOneWasSent) {
  PostAnswers answers;
  EXPECT_FALSE(answers.TakeOfClose(9, CloseAnswer(9)));
  answers.ExpectOfClose(8);
  EXPECT_FALSE(answers.TakeOfClose(9, CloseAnswer(9)));
  EXPECT_FALSE(answers.TakeOfClose(8, CloseAnswer(9)));
  EXPECT_TRUE(answers.TakeOfClose(8, CloseAnswer(8)));
}

TEST(PostAnswers, OfAServerThatNeverAnswersAreBounded) {
  PostAnswers answers;
  const std::size_t before = mivo_test::LiveBytes();
  for (int key = 0; key < 300'000; ++key) {
    answers.Expect(key);
    answers.ExpectOfClose(key);
  }
  EXPECT_LT(mivo_test::LiveBytes(), before + (std::size_t{16} << 20));
  // Of posts the highest keys are still known, and one more post under a key that is.
  EXPECT_TRUE(answers.Take(299'999));
  EXPECT_FALSE(answers.Take(0));
  answers.Expect(299'998);
  EXPECT_TRUE(answers.Take(299'998));
  EXPECT_TRUE(answers.Take(299'998));
  EXPECT_FALSE(answers.Take(299'998));
}

}  // namespace
}  // namespace mivo
