// The public interfaces as compiled code sees them: the order of their virtual tables.
#include <gtest/gtest.h>
#include <mivo/client.h>
#include <mivo/handler.h>
#include <mivo/server.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace {

// The slot of a virtual operation, after the platform's C++ ABI: a pointer to such a member holds one more than the
// slot's offset in the table.
template <class Member>
int SlotOf(Member member) {
  std::uintptr_t words[2];
  static_assert(sizeof words == sizeof member);
  std::memcpy(words, &member, sizeof words);
  if (words[0] % sizeof(void*) != 1 || words[1] != 0) return -1;
  return static_cast<int>(words[0] / sizeof(void*));
}

template <class Interface>
void ExpectPureInterface() {
  EXPECT_TRUE(std::is_abstract_v<Interface>);
  EXPECT_TRUE(std::has_virtual_destructor_v<Interface>);
  // A pointer to the table and nothing else.
  EXPECT_EQ(sizeof(Interface), sizeof(void*));
}

TEST(Interface, HasNoDataAndAVirtualDestructor) {
  ExpectPureInterface<IServer>();
  ExpectPureInterface<IClient>();
  ExpectPureInterface<IServerMethod>();
  ExpectPureInterface<IMethodAll>();
}

#if defined(__x86_64__)

TEST(Interface, OfAServerHasItsOperationsInOrderAndTheDestructorsLast) {
  EXPECT_EQ(SlotOf(&IServer::StartMIVOServer), 0);
  EXPECT_EQ(SlotOf(&IServer::InitMIVOServer), 1);
  EXPECT_EQ(SlotOf(&IServer::StartMIVOServerTcp4), 2);
  EXPECT_EQ(SlotOf(&IServer::StartMIVOServerTcp6), 3);
  EXPECT_EQ(SlotOf(&IServer::InitMIVOServerTcp4), 4);
  EXPECT_EQ(SlotOf(&IServer::InitMIVOServerTcp6), 5);
  EXPECT_EQ(SlotOf(&IServer::run), 6);
  EXPECT_EQ(SlotOf(&IServer::SetTimeoutStep), 7);
  EXPECT_EQ(SlotOf(&IServer::isok), 8);
  EXPECT_EQ(SlotOf(&IServer::close), 9);
  EXPECT_EQ(SlotOf(&IServer::closeasync), 10);
  EXPECT_EQ(SlotOf(&IServer::SendMsg), 11);
  EXPECT_EQ(SlotOf(&IServer::PostMsg), 12);
  EXPECT_EQ(SlotOf(&IServer::log), 13);
  EXPECT_EQ(SlotOf(&IServer::method), 14);
  EXPECT_EQ(SlotOf(&IServer::methodall), 15);
  EXPECT_EQ(SlotOf(&IServer::GetPort), 16);
  EXPECT_EQ(SlotOf(&IServer::GetClientCount), 17);
  EXPECT_EQ(SlotOf(&IServer::isthread), 18);
  EXPECT_EQ(SlotOf(&IServer::SetCustomReleaseEvent), 19);
  EXPECT_EQ(SlotOf(&IServer::SetBigfileBufferSize), 20);
  // Slots 0 to 21 are taken, so the destructor's two are 22 and 23.
  EXPECT_EQ(SlotOf(&IServer::ClearRetvalMem), 21);
}

TEST(Interface, OfAClientHasTheDestructorsFirstAndItsOperationsInOrder) {
  // Nothing but the destructor's two can be in slots 0 and 1.
  EXPECT_EQ(SlotOf(&IClient::InitMIVOClient), 2);
  EXPECT_EQ(SlotOf(&IClient::InitMIVOClientTcp4), 3);
  EXPECT_EQ(SlotOf(&IClient::InitMIVOClientTcp6), 4);
  EXPECT_EQ(SlotOf(&IClient::isok), 5);
  EXPECT_EQ(SlotOf(&IClient::SetTimeoutStep), 6);
  EXPECT_EQ(SlotOf(&IClient::close), 7);
  EXPECT_EQ(SlotOf(&IClient::SendMsg), 8);
  EXPECT_EQ(SlotOf(&IClient::SendMsgFast), 9);
  EXPECT_EQ(SlotOf(&IClient::SendMsgEx), 10);
  EXPECT_EQ(SlotOf(&IClient::PostMsg), 11);
  EXPECT_EQ(SlotOf(&IClient::PostMsgFast), 12);
  EXPECT_EQ(SlotOf(&IClient::method), 13);
  EXPECT_EQ(SlotOf(&IClient::methodall), 14);
  EXPECT_EQ(SlotOf(&IClient::log), 15);
  EXPECT_EQ(SlotOf(&IClient::SetCustomReleaseEvent), 16);
  EXPECT_EQ(SlotOf(&IClient::SetBigfileBufferSize), 17);
  EXPECT_EQ(SlotOf(&IClient::GetBigfileBufferSize), 18);
  EXPECT_EQ(SlotOf(&IClient::ClearRetvalMem), 19);
}

TEST(Interface, OfAHandlerHasTheDestructorsFirstAndThenItsOperation) {
  EXPECT_EQ(SlotOf(&IServerMethod::OnCall), 2);
  EXPECT_EQ(SlotOf(&IMethodAll::OnCall), 2);
}

#endif  // __x86_64__

}  // namespace
