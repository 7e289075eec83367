#include "support/event.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <cctype>
#include <stdexcept>
#include <string>

using namespace mivo_test;

namespace {

constexpr int kRequests = 5000;
constexpr int kLinesASecond = 1000;

// The sum of the counts in lines like "1,234 lines suppressed".
int Suppressed(const std::string& text) {
  static const std::string kEnd = " lines suppressed\n";
  int sum = 0;
  for (std::size_t end = text.find(kEnd); end != std::string::npos; end = text.find(kEnd, end + 1)) {
    std::size_t begin = end;
    while (begin > 0 && (std::isdigit(static_cast<unsigned char>(text[begin - 1])) != 0 || text[begin - 1] == ','))
      --begin;
    std::string number;
    for (const char digit : text.substr(begin, end - begin)) {
      if (digit != ',') number += digit;
    }
    sum += std::stoi(number);
  }
  return sum;
}

TEST(LinesOfAPeer, ThatItsRequestsCauseAreLimitedAndCounted) {
  TestServer server(Transport::Local);
  SetLog(server.get(), "", 0);
  server.On("throws", [](int, MIVOParams*, MIVOParams*) { throw std::runtime_error("no"); });
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  const Stopwatch watch;
  RawPeer peer = server.Connect();
  for (int i = 0; i < kRequests; ++i) {
    ASSERT_TRUE(peer.SendFrame(Request({"throws", i + 1})));
    ASSERT_TRUE(peer.ReadFrame().has_value());
  }
  const int seconds = static_cast<int>(watch.ElapsedMs() / 1000) + 1;
  peer.Close();
  const auto told = [&] { return output.Count("handler throws: no\n") + Suppressed(output.Text()); };
  EXPECT_TRUE(Eventually([&] { return told() == kRequests; })) << told();
  EXPECT_LE(output.Count("handler throws: no\n"), kLinesASecond * (seconds + 1));
}

}  // namespace
