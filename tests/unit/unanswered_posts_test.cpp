#include "calls/unanswered_posts.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace mivo {
namespace {

TEST(UnansweredPosts, TakeOneAnswerForEachPost) {
  UnansweredPosts posts;
  EXPECT_FALSE(posts.TakeAnswer(9));
  posts.Sent(9);
  posts.Sent(9);
  EXPECT_TRUE(posts.TakeAnswer(9));
  EXPECT_TRUE(posts.TakeAnswer(9));
  EXPECT_FALSE(posts.TakeAnswer(9));
  posts.Sent(9);
  EXPECT_TRUE(posts.TakeAnswer(9));
}

TEST(UnansweredPosts, CountEachKeyAlone) {
  UnansweredPosts posts;
  posts.Sent(9);
  EXPECT_FALSE(posts.TakeAnswer(8));
  EXPECT_FALSE(posts.TakeAnswer(0));
  posts.Sent(-5);
  EXPECT_TRUE(posts.TakeAnswer(-5));
  EXPECT_TRUE(posts.TakeAnswer(9));
}

TEST(UnansweredPosts, CountForSeveralThreads) {
  UnansweredPosts posts;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int post = 0; post < 500; ++post)
        posts.Sent(7);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  int answers = 0;
  while (posts.TakeAnswer(7))
    ++answers;
  EXPECT_EQ(answers, 2000);
}

}  // namespace
}  // namespace mivo
