// What programs compiled elsewhere rely on.
#include <mivo/tcpserver.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <memory>

namespace {

template <class Object, class Field>
std::ptrdiff_t Offset(const Object& object, const Field& field) {
  return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&object);
}

TEST(TcpServerLayout, HasTheFieldsOfAServerInOrder) {
  const CTcpServer server(nullptr);
  EXPECT_EQ(Offset(server, server.listener), static_cast<std::ptrdiff_t>(sizeof(void*)));
  EXPECT_LT(Offset(server, server.listener), Offset(server, server.clients));
  EXPECT_LT(Offset(server, server.clients), Offset(server, server.mutex));
  EXPECT_LT(Offset(server, server.mutex), Offset(server, server.loop));
  EXPECT_LT(Offset(server, server.loop), Offset(server, server.lastError));
  EXPECT_LT(Offset(server, server.lastError), Offset(server, server.onConnect));
  EXPECT_LT(Offset(server, server.onConnect), Offset(server, server.initialised));
  EXPECT_EQ(static_cast<std::ptrdiff_t>(sizeof server), Offset(server, server.initialised) + 8) << "and nothing after";
}

TEST(TcpServerLayout, HasTheFieldsOfAClientInOrder) {
  const clientdata client;
  EXPECT_EQ(Offset(client, client.id), static_cast<std::ptrdiff_t>(sizeof(void*)));
  EXPECT_LT(Offset(client, client.id), Offset(client, client.handle));
  EXPECT_LT(Offset(client, client.handle), Offset(client, client.server));
  EXPECT_LT(Offset(client, client.server), Offset(client, client.readBuf));
  EXPECT_LT(Offset(client, client.readBuf), Offset(client, client.writeBuf));
  EXPECT_LT(Offset(client, client.writeBuf), Offset(client, client.onRecv));
}

TEST(TcpServerLayout, FreesTheMemoryOfAClientWithIt) {
  // Left to the leak checker, which sees what is not freed, and to the allocator, which sees what is freed twice.
  auto client = std::make_unique<clientdata>();
  client->handle = static_cast<uv_tcp_t*>(std::calloc(1, sizeof(uv_tcp_t)));
  client->readBuf = uv_buf_init(static_cast<char*>(std::malloc(64)), 64);
  client->writeBuf = uv_buf_init(static_cast<char*>(std::malloc(64)), 64);
  EXPECT_NE(client->handle, nullptr);
  client.reset();
}

TEST(TcpServerLayout, StartsEmpty) {
  const CTcpServer server(nullptr);
  EXPECT_TRUE(server.clients.empty());
  EXPECT_EQ(server.loop, nullptr);
  EXPECT_TRUE(server.lastError.empty());
  EXPECT_EQ(server.onConnect, nullptr);
  EXPECT_FALSE(server.initialised);
}

TEST(TcpServerLayout, WritesNumbersAsDecimalText) {
  EXPECT_EQ(CTcpServer::IntToString(0), "0");
  EXPECT_EQ(CTcpServer::IntToString(-7), "-7");
  EXPECT_EQ(CTcpServer::IntToString(2147483647), "2147483647");
  EXPECT_EQ(CTcpServer::IntToString(std::numeric_limits<int>::min()), "-2147483648");
}

TEST(TcpServerLayout, CountsClientsOn) {
  const int last = CTcpServer::NextClientId();
  EXPECT_EQ(CTcpServer::NextClientId(), last + 1);
}

}  // namespace
