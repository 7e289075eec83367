#include "calls/version_check.h"

#include <gtest/gtest.h>

#include <string>

#include "support/golden.h"
#include "transport/envelope.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Golden;
using mivo_test::Payload;
using mivo_test::ToHex;

constexpr char kOurs[] = "MIVO Version: 1.1.0.12";

std::string Answer(const std::string& request) {
  return AnswerVersionCheck(ReadEnvelope(request));
}

std::string AnswerToData(const std::string& data) {
  return Answer(Payload().KeyString("s_c_sw_name", "s_c_version").KeyStream("s_c_sw_data", data));
}

std::string Reply(bool is_accepted) {
  return Payload().Bool(is_accepted).KeyString("VERSION", kOurs).KeyString("s_c_sw_name", "retval");
}

TEST(AnswerVersionCheck, AcceptsItsOwnVersion) {
  EXPECT_EQ(ToHex(Answer(Golden("handshake_request"))), ToHex(Golden("handshake_reply")));
  EXPECT_EQ(ToHex(AnswerToData(Payload().KeyString("VERSION", kOurs))), ToHex(Reply(true)));
}

TEST(AnswerVersionCheck, DeniesAnotherVersionAndNamesItsOwn) {
  for (const std::string& data :
       {Payload().KeyString("VERSION", "MIVO Version: 1.1.0.11").bytes(),
        Payload().KeyString("VERSION", "MIVO Version: 1.1.0.1").bytes(),
        Payload().KeyString("VERSION", "MIVO Version: 1.1.0.123").bytes(), Payload().KeyInt("VERSION", 1).bytes(),
        Payload().KeyString("VERSION", "").bytes(), Payload().KeyStream("VERSION", kOurs).bytes(),
        Payload().KeyString("version", kOurs).bytes(), Payload().String(kOurs).bytes(), Payload().bytes()}) {
    EXPECT_EQ(ToHex(AnswerToData(data)), ToHex(Reply(false))) << ToHex(data);
  }
}

TEST(AnswerVersionCheck, DeniesARequestWithoutArguments) {
  EXPECT_EQ(ToHex(Answer(Payload().KeyString("s_c_sw_name", "s_c_version"))), ToHex(Reply(false)));
}

TEST(AnswerVersionCheck, FindsTheBannerAmongOtherValues) {
  const std::string data = Payload()
                               .Int(5)
                               .List(1)
                               .String(kOurs)
                               .KeyString("other", "MIVO Version: 1.1.0.11")
                               .KeyString("VERSION", kOurs)
                               .KeyInt("more", 5);
  EXPECT_EQ(ToHex(AnswerToData(data)), ToHex(Reply(true)));
}

TEST(AnswerVersionCheck, GoesByTheLastOfSeveralBanners) {
  EXPECT_EQ(ToHex(AnswerToData(Payload().KeyString("VERSION", "old").KeyString("VERSION", kOurs))), ToHex(Reply(true)));
  EXPECT_EQ(ToHex(AnswerToData(Payload().KeyString("VERSION", kOurs).KeyString("VERSION", "old"))),
            ToHex(Reply(false)));
  EXPECT_EQ(ToHex(AnswerToData(Payload().KeyString("VERSION", kOurs).KeyInt("VERSION", 1))), ToHex(Reply(false)));
}

TEST(AnswerVersionCheck, CountsWhatStandsBeforeAFault) {
  EXPECT_EQ(ToHex(AnswerToData(Payload().KeyString("VERSION", kOurs).Raw("\x7F"))), ToHex(Reply(true)));
  EXPECT_EQ(ToHex(AnswerToData(Payload().Raw("\x7F").KeyString("VERSION", kOurs))), ToHex(Reply(false)));
}

TEST(AnswerVersionCheck, EchoesKeyAndToken) {
  const std::string request = Payload()
                                  .KeyString("s_c_sw_name", "s_c_version")
                                  .KeyInt("s_c_sw_threadid", 9)
                                  .KeyStream("s_c_sw_data", Payload().KeyString("VERSION", kOurs).bytes())
                                  .KeyString("s_c_sw_semid", "0xab");
  const std::string expected = Payload()
                                   .Bool(true)
                                   .KeyString("VERSION", kOurs)
                                   .KeyString("s_c_sw_name", "retval")
                                   .KeyInt("s_c_sw_threadid", 9)
                                   .KeyString("s_c_sw_semid", "0xab");
  EXPECT_EQ(ToHex(Answer(request)), ToHex(expected));
}

}  // namespace
}  // namespace mivo
