// Every type of value, out and back: how to put it into a set, how to find it there, and how to look at it.
#include <mivo/mivo.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

int wrong = 0;

void Expect(bool holds, const char* what) {
  std::cout << (holds ? "ok: " : "WRONG: ") << what << "\n";
  if (!holds) ++wrong;
}

// Sends the request back as it came. An encoding may be copied as a whole, into an empty set.
class Echo : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override { *reply->GetParamas() = *request->GetParamas(); }
};

// Values have types, and the getters do not ask for them: ask first.
bool IsInt(const MIVOValue* value, int expected) {
  return value != nullptr && value->IsInt() && value->GetInt() == expected;
}
bool IsBool(const MIVOValue* value, bool expected) {
  return value != nullptr && value->IsBool() && value->GetBool() == expected;
}
bool IsDouble(const MIVOValue* value, double expected) {
  return value != nullptr && value->IsDouble() && value->GetDouble() == expected;
}
bool IsString(const MIVOValue* value, const std::string& expected) {
  return value != nullptr && value->IsString() && value->GetString() == expected;
}
bool IsStream(const MIVOValue* value, const std::string& expected) {
  if (value == nullptr || !value->IsStream()) return false;
  long length = 0;
  const char* const bytes = value->GetStream(length);
  return std::string(bytes, static_cast<std::size_t>(length)) == expected;
}

const std::string kBytes("a\0b\xff", 4);

void Fill(MIVOParams& set) {
  // By position
  set.AddInt(-7);
  set.AddBool(true);
  set.AddDouble(0.125);
  set.AddString("text");                                           // up to the NUL
  set.AddStream(kBytes.data(), static_cast<long>(kBytes.size()));  // any bytes

  ListParams* const list = set.CreateListParams();
  list->AddInt(1);
  list->AddBool(false);
  list->AddDouble(2.5);
  list->AddString("three", 5);
  list->AddStream(kBytes.data(), static_cast<long>(kBytes.size()));
  set.AddList(list);  // takes the list and deletes it

  // By key
  set.AddKeyValueInt("count", 3);
  set.AddKeyValueBool("ready", false);
  set.AddKeyValueDouble("ratio", 1.5);
  set.AddKeyValueString("name", "first");
  set.AddKeyValueString("name", "second");  // the later one is found
  set.AddKeyValueStream("bytes", kBytes.data(), static_cast<long>(kBytes.size()));
}

void Look(const MIVOParams& set) {
  Expect(IsInt(set.GetValue(0), -7), "int");
  Expect(IsBool(set.GetValue(1), true), "bool");
  Expect(IsDouble(set.GetValue(2), 0.125), "double");
  Expect(IsString(set.GetValue(3), "text"), "string");
  Expect(IsStream(set.GetValue(4), kBytes), "stream, with its NUL");

  MIVOValue* const list = set.GetValue(5);
  const bool is_list = list != nullptr && list->IsList() && list->GetList()->size() == 5;
  Expect(is_list, "list of five");
  if (is_list) {
    const std::vector<MIVOValue*>& elements = *list->GetList();
    Expect(IsInt(elements[0], 1) && IsBool(elements[1], false) && IsDouble(elements[2], 2.5), "its numbers");
    Expect(IsString(elements[3], "three") && IsStream(elements[4], kBytes), "its texts");
  }
  Expect(set.GetValue(6) == nullptr, "nothing behind the last");

  Expect(IsInt(set.GetMap("count"), 3) && IsBool(set.GetMap("ready"), false), "int and bool by key");
  Expect(IsDouble(set.GetMap("ratio"), 1.5) && IsStream(set.GetMap("bytes"), kBytes), "double and stream by key");
  Expect(IsString(set.GetMap("name"), "second"), "the later of two values under one key");
  Expect(set.GetMap("no such key") == nullptr, "nothing under a key that nobody added");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: values\n\nSends a value of every type to a server and looks at what comes back.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  const std::string name = std::to_string(::getpid());
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("echo", new Echo);
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  if (!server->InitMIVOServer(name.c_str()) || !client->InitMIVOClient(name.c_str(), true)) {
    std::cout << "cannot serve or connect\n";
    return 1;
  }

  MIVOParams request;
  Fill(request);
  Expect(request.ParamsSize() == 0, "what was added cannot be read yet");
  request.ToParams();
  Expect(request.ParamsSize() == 6, "after ToParams it can");

  std::cout << "-- came back:\n";
  MIVOParams* const reply = client->SendMsg("echo", &request, 0, 5000);
  Look(*reply);
  if (reply->GetMap("errorCode") != nullptr && reply->MapSize() == 1) delete reply;

  std::cout << "-- the dump of a small set:" << std::flush;
  MIVOParams positional;
  positional.AddInt(-7);
  positional.AddStream(kBytes.data(), static_cast<long>(kBytes.size()));
  positional.ToParams();
  positional.print();

  DestroyClient(client);
  DestroyServer(server);
  return wrong == 0 ? 0 : 1;
}
