// A file of 16 MiB and one byte, sent and fetched in one call each. examples/demo shows it in pieces, with progress.
#include <mivo/mivo.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

constexpr std::size_t kSize = (16u << 20) + 1;
constexpr int kTimeoutMs = 60000;
// SendMsgEx tells its calls apart by their keys alone. One that has timed out may leave something behind under its key,
// so each gets one of its own, which no thread's id is.
constexpr int kSendKey = -1;
constexpr int kFetchKey = -2;

std::string Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool Write(const std::string& path, const char* bytes, long length) {
  std::ofstream file(path, std::ios::binary);
  file.write(bytes, length);
  file.close();
  return !file.fail();
}

class Put : public IServerMethod {
 public:
  explicit Put(std::string path) : path_(std::move(path)) {}
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override {
    const MIVOValue* const content = request->GetMap("content");
    if (content == nullptr || !content->IsStream()) return;
    long length = 0;
    const char* const bytes = content->GetStream(length);
    if (Write(path_, bytes, length)) reply->AddInt(static_cast<int>(length));
  }

 private:
  const std::string path_;
};

class Get : public IServerMethod {
 public:
  explicit Get(std::string path) : path_(std::move(path)) {}
  void OnCall(int, MIVOParams*, MIVOParams* reply) override {
    const std::string content = Read(path_);
    reply->AddKeyValueStream("content", content.data(), static_cast<long>(content.size()));
  }

 private:
  const std::string path_;
};

bool Expect(bool holds, const std::string& what) {
  std::cout << (holds ? "ok: " : "WRONG: ") << what << "\n";
  return holds;
}

bool Play(IClient* client, const std::string& folder) {
  std::string made(kSize, '\0');
  std::uint32_t random = 1;
  for (char& byte : made) {
    random = random * 1664525u + 1013904223u;
    byte = static_cast<char>(random >> 24);
  }
  bool fine = Expect(Write(folder + "/original", made.data(), static_cast<long>(made.size())), "made a file");

  // Both processes hold the whole message several times over: this is for what fits into memory easily.
  MIVOParams request;
  const std::string content = Read(folder + "/original");
  request.AddKeyValueStream("content", content.data(), static_cast<long>(content.size()));
  client->SetBigfileBufferSize(256 << 10);  // fewer and larger slices than by default; for the whole process
  MIVOParams* const stored = client->SendMsgEx("put", &request, kSendKey, kTimeoutMs);
  const MIVOValue* const length = stored->GetValue(0);
  fine &= Expect(length != nullptr && length->IsInt() && length->GetInt() == static_cast<int>(kSize),
                 "the server has stored " + std::to_string(kSize) + " bytes");
  fine &= Expect(request.Size() == 0, "the request was emptied on the way");
  if (stored->GetMap("errorCode") != nullptr && stored->MapSize() == 1) delete stored;
  fine &= Expect(Read(folder + "/stored") == made, "they are those that were sent");

  MIVOParams* const fetched = client->SendMsgEx("get", nullptr, kFetchKey, kTimeoutMs);
  const MIVOValue* const back = fetched->GetMap("content");
  if (Expect(back != nullptr && back->IsStream(), "the server has sent something back")) {
    long size = 0;
    const char* const bytes = back->GetStream(size);
    fine &= Expect(made == std::string(bytes, static_cast<std::size_t>(size)), "it is the same");
  } else {
    fine = false;
  }
  if (fetched->GetMap("errorCode") != nullptr && fetched->MapSize() == 1) delete fetched;
  return fine;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: large_file\n\nSends a file to a server and fetches it back, with one SendMsgEx each.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  const std::string name = std::to_string(::getpid());
  const std::string folder = (std::filesystem::temp_directory_path() / ("mivo-large-file." + name)).string();
  std::filesystem::create_directory(folder);
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("put", new Put(folder + "/stored"));
  server->method("get", new Get(folder + "/stored"));
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  bool fine = server->InitMIVOServer(name.c_str()) && client->InitMIVOClient(name.c_str(), true);
  if (fine) {
    fine = Play(client, folder);
  } else {
    std::cout << "cannot serve or connect\n";
  }
  DestroyClient(client);
  DestroyServer(server);
  std::filesystem::remove_all(folder);
  return fine ? 0 : 1;
}
