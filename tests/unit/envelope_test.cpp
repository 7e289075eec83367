#include "transport/envelope.h"

#include <gtest/gtest.h>
#include <mivo/params.h>
#include <signal.h>

#include <optional>
#include <string>
#include <string_view>

#include "support/golden.h"
#include "transport/builtin_keys.h"
#include "unit/large_memory.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Golden;
using mivo_test::Payload;
using mivo_test::ToHex;

TEST(Envelope, IsReadFromARequest) {
  const std::string payload = Golden("handshake_request");
  const Envelope envelope = ReadEnvelope(payload);
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_EQ(envelope.name, "s_c_version");
  EXPECT_EQ(envelope.thread_id, 1234);
  EXPECT_EQ(envelope.sem_id, "0x5a10");
  ASSERT_TRUE(envelope.data.has_value());
  EXPECT_EQ(*envelope.data, Payload().KeyString("VERSION", "MIVO Version: 1.1.0.12").bytes());
  // Read in place.
  EXPECT_GE(envelope.data->data(), payload.data());
  EXPECT_LE(envelope.data->data() + envelope.data->size(), payload.data() + payload.size());
}

TEST(Envelope, IsReadInAnyOrderAndBetweenOtherValues) {
  const std::string payload = Payload()
                                  .Int(5)
                                  .KeyString("s_c_sw_semid", "0xab")
                                  .KeyInt("other", 3)
                                  .KeyInt("s_c_sw_threadid", -7)
                                  .List(2)
                                  .Int(1)
                                  .String("s_c_sw_name")
                                  .KeyString("s_c_sw_name", "foo")
                                  .KeyStream("s_c_sw_data", std::string_view("\0\1", 2));
  const Envelope envelope = ReadEnvelope(payload);
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_EQ(envelope.name, "foo");
  EXPECT_EQ(envelope.thread_id, -7);
  EXPECT_EQ(envelope.sem_id, "0xab");
  EXPECT_EQ(envelope.data, std::string_view("\0\1", 2));
}

TEST(Envelope, LosesAValueToAListMapThatHoldsItsKey) {
  const std::string payload = Payload()
                                  .KeyString("s_c_sw_name", "foo")
                                  .KeyInt("s_c_sw_threadid", 9)
                                  .ListMap(1)
                                  .KeyString("s_c_sw_name", "inside")
                                  .bytes();
  MIVOParams params;
  EXPECT_TRUE(params.Parser(payload.data(), static_cast<int>(payload.size())));
  EXPECT_EQ(params.GetMap("s_c_sw_name"), nullptr);
  const Envelope envelope = ReadEnvelope(payload);
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_FALSE(envelope.name);
  EXPECT_EQ(envelope.thread_id, 9);
}

TEST(Envelope, OfAnEmptyPayloadIsEmpty) {
  const Envelope envelope = ReadEnvelope("");
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_FALSE(envelope.name);
  EXPECT_FALSE(envelope.thread_id);
  EXPECT_FALSE(envelope.sem_id);
  EXPECT_FALSE(envelope.data);
}

TEST(Envelope, TellsAnEmptyValueFromAnAbsentOne) {
  const std::string payload =
      Payload().KeyString("s_c_sw_name", "").KeyString("s_c_sw_semid", "").KeyStream("s_c_sw_data", "");
  const Envelope envelope = ReadEnvelope(payload);
  EXPECT_EQ(envelope.name, "");
  EXPECT_EQ(envelope.sem_id, "");
  EXPECT_EQ(envelope.data, "");
  EXPECT_FALSE(envelope.thread_id);
}

TEST(Envelope, ValuesOfAnotherTypeCountAsAbsent) {
  const auto nothing = [](const std::string& payload) {
    const Envelope envelope = ReadEnvelope(payload);
    return envelope.well_formed && !envelope.name && !envelope.thread_id && !envelope.sem_id && !envelope.data;
  };
  for (const char* key : {"s_c_sw_name", "s_c_sw_semid"}) {
    EXPECT_TRUE(nothing(Payload().KeyInt(key, 5))) << key;
    EXPECT_TRUE(nothing(Payload().KeyBool(key, true))) << key;
    EXPECT_TRUE(nothing(Payload().Key(key).Double(0.5))) << key;
    EXPECT_TRUE(nothing(Payload().KeyStream(key, "foo"))) << key;
    EXPECT_TRUE(nothing(Payload().Key(key).List(1).String("foo"))) << key;
  }
  EXPECT_TRUE(nothing(Payload().KeyString("s_c_sw_threadid", "9")));
  EXPECT_TRUE(nothing(Payload().KeyBool("s_c_sw_threadid", true)));
  EXPECT_TRUE(nothing(Payload().Key("s_c_sw_threadid").Double(9)));
  EXPECT_TRUE(nothing(Payload().KeyStream("s_c_sw_threadid", "9")));
  EXPECT_TRUE(nothing(Payload().KeyInt("s_c_sw_data", 5)));
  EXPECT_TRUE(nothing(Payload().KeyBool("s_c_sw_data", true)));
  EXPECT_TRUE(nothing(Payload().Key("s_c_sw_data").List(0)));
}

TEST(Envelope, TakesDataThatWasSentAsAString) {
  const std::string payload = Payload().KeyString("s_c_sw_data", "bytes");
  EXPECT_EQ(ReadEnvelope(payload).data, "bytes");
}

TEST(Envelope, TakesTheLaterOfTwoValues) {
  const std::string payload = Payload()
                                  .KeyString("s_c_sw_name", "first")
                                  .KeyInt("s_c_sw_threadid", 1)
                                  .KeyString("s_c_sw_name", "second")
                                  .KeyInt("s_c_sw_threadid", 2);
  const Envelope envelope = ReadEnvelope(payload);
  EXPECT_EQ(envelope.name, "second");
  EXPECT_EQ(envelope.thread_id, 2);
}

TEST(Envelope, ALaterValueOfAnotherTypeTakesTheEarlierAway) {
  const Envelope envelope = ReadEnvelope(Payload()
                                             .KeyString("s_c_sw_name", "first")
                                             .KeyInt("s_c_sw_name", 1)
                                             .KeyInt("s_c_sw_threadid", 1)
                                             .KeyString("s_c_sw_threadid", "1")
                                             .KeyString("s_c_sw_semid", "0xab")
                                             .KeyInt("s_c_sw_semid", 1)
                                             .KeyStream("s_c_sw_data", "d")
                                             .Key("s_c_sw_data")
                                             .List(0)
                                             .bytes());
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_FALSE(envelope.name);
  EXPECT_FALSE(envelope.thread_id);
  EXPECT_FALSE(envelope.sem_id);
  EXPECT_FALSE(envelope.data);
}

TEST(Envelope, KeepsWhatStandsBeforeAFault) {
  const std::string payload = Payload().KeyString("s_c_sw_name", "foo").KeyInt("s_c_sw_threadid", 9).Raw("\x7F");
  const Envelope envelope = ReadEnvelope(payload);
  EXPECT_FALSE(envelope.well_formed);
  EXPECT_EQ(envelope.name, "foo");
  EXPECT_EQ(envelope.thread_id, 9);
}

TEST(Envelope, AgreesWithTheParametersAboutEveryCutOfAPayload) {
  const std::string whole = Golden("handshake_request");
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const std::string payload = whole.substr(0, size);
    MIVOParams params;
    EXPECT_EQ(ReadEnvelope(payload).well_formed, params.Parser(payload.data(), static_cast<int>(size))) << size;
    const Envelope envelope = ReadEnvelope(payload);
    const auto text = [&](const char* key) -> std::optional<std::string> {
      const MIVOValue* const value = params.GetMap(key);
      if (value == nullptr) return std::nullopt;
      long length = 0;
      const char* const bytes = value->GetStream(length);
      return std::string(bytes, static_cast<std::size_t>(length));
    };
    EXPECT_EQ(envelope.name, text(kNameKey)) << size;
    EXPECT_EQ(envelope.data, text(kDataKey)) << size;
    EXPECT_EQ(envelope.sem_id, text(kSemIdKey)) << size;
    const MIVOValue* const thread_id = params.GetMap(kThreadIdKey);
    EXPECT_EQ(envelope.thread_id.has_value(), thread_id != nullptr) << size;
    if (envelope.thread_id && thread_id != nullptr) {
      EXPECT_EQ(*envelope.thread_id, thread_id->GetInt()) << size;
    }
  }
}

TEST(Envelope, MovesToACopyOfItsPayload) {
  const std::string payload = Golden("handshake_request");
  const Envelope envelope = ReadEnvelope(payload);
  const std::string copy = payload;
  const Envelope moved = MoveEnvelope(envelope, payload, copy);
  EXPECT_TRUE(moved.well_formed);
  EXPECT_EQ(moved.thread_id, 1234);
  for (const auto view : {&Envelope::name, &Envelope::sem_id, &Envelope::data}) {
    ASSERT_TRUE((moved.*view).has_value());
    EXPECT_EQ(moved.*view, envelope.*view);
    EXPECT_EQ((moved.*view)->data() - copy.data(), (envelope.*view)->data() - payload.data());
  }
}

TEST(Envelope, MovesWhatIsEmptyOrAbsent) {
  const std::string payload = Payload().KeyString("s_c_sw_name", "").KeyStream("s_c_sw_data", "");
  const std::string copy = payload;
  const Envelope moved = MoveEnvelope(ReadEnvelope(payload), payload, copy);
  EXPECT_EQ(moved.name, "");
  EXPECT_EQ(moved.data, "");
  EXPECT_FALSE(moved.sem_id);
  EXPECT_FALSE(moved.thread_id);
}

TEST(Envelope, OfTheHandshakeHasTheAgreedBytes) {
  MIVOParams version;
  version.AddKeyValueString(kVersionKey, kVersionBanner);
  EXPECT_EQ(ToHex(EncodeRequest(kVersionMethod, 1234, &version, 0x5a10)), ToHex(Golden("handshake_request")));
}

TEST(Envelope, OfAPostHasTheAgreedBytes) {
  EXPECT_EQ(ToHex(EncodeRequest("foo", 9, nullptr, 0)), ToHex(Golden("post_request")));
}

TEST(Envelope, OfACallWithoutArgumentsHasTheAgreedBytes) {
  const MIVOParams empty;
  EXPECT_EQ(ToHex(EncodeRequest("foo", 9, &empty, 0xab)), ToHex(Golden("call_request")));
}

TEST(Envelope, CarriesTheArgumentsAsTheyAre) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueStream("k", "\0\1\2", 3);
  const std::string bytes = *params.GetParamas();
  const std::string request = EncodeRequest("name", -5, &params, 0x10);
  const Envelope envelope = ReadEnvelope(request);
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_EQ(envelope.data, bytes);
  EXPECT_EQ(envelope.thread_id, -5);
  EXPECT_EQ(*params.GetParamas(), bytes);
}

TEST(Envelope, CarriesLongNamesAndLargeArguments) {
  const std::string name(5000, 'n');
  MIVOParams params;
  const std::string large(1000000, 'x');
  params.AddStream(large.data(), static_cast<long>(large.size()));
  const std::string request = EncodeRequest(name, 1, &params, 1);
  const Envelope envelope = ReadEnvelope(request);
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_EQ(envelope.name, name);
  EXPECT_EQ(envelope.data, *params.GetParamas());
}

Envelope RequestBy(std::optional<int> thread_id, std::optional<std::string_view> sem_id) {
  Envelope request;
  request.thread_id = thread_id;
  request.sem_id = sem_id;
  return request;
}

TEST(ServerReplyTail, HasTheAgreedBytes) {
  std::string reply;
  AppendServerReplyTail(reply, RequestBy(9, "0xab"));
  EXPECT_EQ(ToHex(reply), ToHex(Golden("server_reply_empty")));
}

TEST(ServerReplyTail, HasOnlyWhatTheRequestHad) {
  std::string reply = Payload().String("no event: foo");
  AppendServerReplyTail(reply, RequestBy(9, std::nullopt));
  EXPECT_EQ(ToHex(reply), ToHex(Golden("server_reply_unknown_name")));

  std::string bare;
  AppendServerReplyTail(bare, RequestBy(std::nullopt, std::nullopt));
  EXPECT_EQ(ToHex(bare), ToHex(Payload().KeyString("s_c_sw_name", "retval").bytes()));

  std::string without_key;
  AppendServerReplyTail(without_key, RequestBy(std::nullopt, "0xab"));
  EXPECT_EQ(ToHex(without_key),
            ToHex(Payload().KeyString("s_c_sw_name", "retval").KeyString("s_c_sw_semid", "0xab").bytes()));
}

TEST(ClientReplyTail, HasTheAgreedBytes) {
  std::string reply;
  AppendClientReplyTail(reply, RequestBy(9, "0xab"));
  EXPECT_EQ(ToHex(reply), ToHex(Golden("client_reply_empty")));
}

TEST(ClientReplyTail, NamesKeyZeroForARequestWithoutOne) {
  std::string reply;
  AppendClientReplyTail(reply, RequestBy(std::nullopt, std::nullopt));
  EXPECT_EQ(ToHex(reply), ToHex(Payload().KeyInt("s_c_sw_threadid", 0).KeyString("s_c_sw_name", "retval").bytes()));
}

TEST(ClientReplyTail, EchoesAForeignSemaphoreAsItCame) {
  std::string reply;
  AppendClientReplyTail(reply, RequestBy(1, "not a pointer"));
  EXPECT_EQ(ReadEnvelope(reply).sem_id, "not a pointer");
}

TEST(EncodeRequestDeathTest, EndsTheProgramForArgumentsThatNoFrameCanHold) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        MIVOParams params;
        params.GetParamas()->resize(std::size_t{1} << 31);
        EncodeRequest("sum", 9, &params, 0);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(EncodeRequestDeathTest, EndsTheProgramForArgumentsOfWhichAnIntWouldCountAFewBytes) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(8);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        MIVOParams params;
        params.GetParamas()->resize((std::size_t{1} << 32) + 10);
        EncodeRequest("sum", 9, &params, 0);
      },
      testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace mivo
