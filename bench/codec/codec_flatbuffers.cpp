// Reads in place: its decoding is the check of the bytes, and no object is made.
#include <benchmark/benchmark.h>

#include <vector>

#include "payloads.h"
#include "sets_generated.h"

namespace {

using codec::TheBlob;
using codec::TheEntries;
using codec::TheInts;
using codec::TheSmall;
using flatbuffers::FlatBufferBuilder;

const std::uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

struct Small {
  using Table = codec_flatbuffers::Small;
  static void Write(FlatBufferBuilder& builder) {
    const codec::Small& small = TheSmall();
    const auto text = builder.CreateString(small.text);
    const auto blob = builder.CreateVector(Bytes(small.blob), small.blob.size());
    const auto entry =
        codec_flatbuffers::CreateEntry(builder, builder.CreateString(small.key), builder.CreateString(small.value));
    const auto keyed = builder.CreateVector(&entry, 1);
    builder.Finish(codec_flatbuffers::CreateSmall(builder, small.number, small.flag, small.real, text, blob, keyed));
  }
  static void Read(const Table& table) {
    benchmark::DoNotOptimize(table.number());
    benchmark::DoNotOptimize(table.flag());
    benchmark::DoNotOptimize(table.real());
    benchmark::DoNotOptimize(table.text()->c_str());
    benchmark::DoNotOptimize(table.blob()->data());
    benchmark::DoNotOptimize(table.keyed()->LookupByKey("name")->value()->c_str());
  }
};

struct Ints {
  using Table = codec_flatbuffers::Ints;
  static void Write(FlatBufferBuilder& builder) {
    const auto values = builder.CreateVector(TheInts());
    builder.Finish(codec_flatbuffers::CreateInts(builder, values));
  }
  static void Read(const Table& table) {
    for (const std::int32_t value : *table.values())
      benchmark::DoNotOptimize(value);
  }
};

struct Blob {
  using Table = codec_flatbuffers::Blob;
  static void Write(FlatBufferBuilder& builder) {
    const auto bytes = builder.CreateVector(Bytes(TheBlob()), TheBlob().size());
    builder.Finish(codec_flatbuffers::CreateBlob(builder, bytes));
  }
  static void Read(const Table& table) { benchmark::DoNotOptimize(table.bytes()->data()); }
};

struct Entries {
  using Table = codec_flatbuffers::Entries;
  static void Write(FlatBufferBuilder& builder) {
    std::vector<flatbuffers::Offset<codec_flatbuffers::Entry>> entries;
    entries.reserve(TheEntries().size());
    for (const auto& entry : TheEntries()) {
      entries.push_back(codec_flatbuffers::CreateEntry(builder, builder.CreateString(entry.first),
                                                       builder.CreateString(entry.second)));
    }
    const auto sorted = builder.CreateVectorOfSortedTables(&entries);
    builder.Finish(codec_flatbuffers::CreateEntries(builder, sorted));
  }
  static void Read(const Table& table) {
    for (const auto& entry : TheEntries())
      benchmark::DoNotOptimize(table.entries()->LookupByKey(entry.first.c_str())->value()->c_str());
  }
};

template <class Set>
void Encode(benchmark::State& state) {
  std::size_t size = 0;
  for (auto _ : state) {
    FlatBufferBuilder builder;
    Set::Write(builder);
    benchmark::DoNotOptimize(builder.GetBufferPointer());
    size = builder.GetSize();
  }
  state.counters["bytes"] = static_cast<double>(size);
}

template <class Set>
void Decode(benchmark::State& state) {
  FlatBufferBuilder builder;
  Set::Write(builder);
  for (auto _ : state) {
    flatbuffers::Verifier verifier(builder.GetBufferPointer(), builder.GetSize());
    if (!verifier.VerifyBuffer<typename Set::Table>(nullptr)) state.SkipWithError("does not verify");
    Set::Read(*flatbuffers::GetRoot<typename Set::Table>(builder.GetBufferPointer()));
  }
  state.counters["bytes"] = static_cast<double>(builder.GetSize());
}

BENCHMARK(Encode<Small>)->Name("encode/small/flatbuffers");
BENCHMARK(Encode<Ints>)->Name("encode/ints/flatbuffers");
BENCHMARK(Encode<Blob>)->Name("encode/blob/flatbuffers");
BENCHMARK(Encode<Entries>)->Name("encode/entries/flatbuffers");
BENCHMARK(Decode<Small>)->Name("decode/small/flatbuffers");
BENCHMARK(Decode<Ints>)->Name("decode/ints/flatbuffers");
BENCHMARK(Decode<Blob>)->Name("decode/blob/flatbuffers");
BENCHMARK(Decode<Entries>)->Name("decode/entries/flatbuffers");

}  // namespace
