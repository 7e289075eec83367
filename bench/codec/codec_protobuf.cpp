#include <benchmark/benchmark.h>

#include <string>

#include "payloads.h"
#include "sets.pb.h"

namespace {

using codec::TheBlob;
using codec::TheEntries;
using codec::TheInts;
using codec::TheSmall;

void Write(codec_protobuf::Small& message) {
  const codec::Small& small = TheSmall();
  message.set_number(small.number);
  message.set_flag(small.flag);
  message.set_real(small.real);
  message.set_text(small.text);
  message.set_blob(small.blob);
  (*message.mutable_keyed())[small.key] = small.value;
}

void Write(codec_protobuf::Ints& message) {
  message.mutable_values()->Reserve(static_cast<int>(TheInts().size()));
  for (const std::int32_t value : TheInts())
    message.add_values(value);
}

void Write(codec_protobuf::Blob& message) {
  message.set_bytes(TheBlob());
}

void Write(codec_protobuf::Entries& message) {
  for (const auto& entry : TheEntries())
    (*message.mutable_entries())[entry.first] = entry.second;
}

void Read(const codec_protobuf::Small& message) {
  benchmark::DoNotOptimize(message.number());
  benchmark::DoNotOptimize(message.flag());
  benchmark::DoNotOptimize(message.real());
  benchmark::DoNotOptimize(message.text().data());
  benchmark::DoNotOptimize(message.blob().data());
  benchmark::DoNotOptimize(message.keyed().find("name")->second.data());
}

void Read(const codec_protobuf::Ints& message) {
  for (const std::int32_t value : message.values())
    benchmark::DoNotOptimize(value);
}

void Read(const codec_protobuf::Blob& message) {
  benchmark::DoNotOptimize(message.bytes().data());
}

void Read(const codec_protobuf::Entries& message) {
  for (const auto& entry : TheEntries())
    benchmark::DoNotOptimize(message.entries().find(entry.first)->second.data());
}

template <class Message>
void Encode(benchmark::State& state) {
  std::string bytes;
  for (auto _ : state) {
    Message message;
    Write(message);
    std::string out;
    message.SerializeToString(&out);
    benchmark::DoNotOptimize(out.data());
    bytes.swap(out);
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}

template <class Message>
void Decode(benchmark::State& state) {
  Message source;
  Write(source);
  const std::string bytes = source.SerializeAsString();
  for (auto _ : state) {
    Message message;
    message.ParseFromString(bytes);
    Read(message);
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}

BENCHMARK(Encode<codec_protobuf::Small>)->Name("encode/small/protobuf");
BENCHMARK(Encode<codec_protobuf::Ints>)->Name("encode/ints/protobuf");
BENCHMARK(Encode<codec_protobuf::Blob>)->Name("encode/blob/protobuf");
BENCHMARK(Encode<codec_protobuf::Entries>)->Name("encode/entries/protobuf");
BENCHMARK(Decode<codec_protobuf::Small>)->Name("decode/small/protobuf");
BENCHMARK(Decode<codec_protobuf::Ints>)->Name("decode/ints/protobuf");
BENCHMARK(Decode<codec_protobuf::Blob>)->Name("decode/blob/protobuf");
BENCHMARK(Decode<codec_protobuf::Entries>)->Name("decode/entries/protobuf");

}  // namespace
