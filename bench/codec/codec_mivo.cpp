#include <benchmark/benchmark.h>
#include <mivo/params.h>

#include "payloads.h"

namespace {

using codec::TheBlob;
using codec::TheEntries;
using codec::TheInts;
using codec::TheSmall;

void WriteSmall(MIVOParams& params) {
  const codec::Small& small = TheSmall();
  params.AddInt(small.number);
  params.AddBool(small.flag);
  params.AddDouble(small.real);
  params.AddString(small.text.c_str());
  params.AddStream(small.blob.data(), static_cast<long>(small.blob.size()));
  params.AddKeyValueString(small.key.c_str(), small.value.c_str());
}

void WriteInts(MIVOParams& params) {
  for (const std::int32_t value : TheInts())
    params.AddInt(value);
}

void WriteIntList(MIVOParams& params) {
  ListParams* const list = params.CreateListParams();
  for (const std::int32_t value : TheInts())
    list->AddInt(value);
  params.AddList(list);
}

void WriteBlob(MIVOParams& params) {
  params.AddStream(TheBlob().data(), static_cast<long>(TheBlob().size()));
}

void WriteEntries(MIVOParams& params) {
  for (const auto& entry : TheEntries())
    params.AddKeyValueString(entry.first.c_str(), entry.second.c_str());
}

// Asks for every value of the set, so that none is left unmade.
void ReadPositional(const MIVOParams& params) {
  const int count = params.ParamsSize();
  for (int index = 0; index < count; ++index) {
    const MIVOValue* const value = params.GetValue(index);
    benchmark::DoNotOptimize(value->data);
  }
}

void ReadSmall(const MIVOParams& params) {
  ReadPositional(params);
  benchmark::DoNotOptimize(params.GetMap("name")->GetString());
}

void ReadIntList(const MIVOParams& params) {
  for (const MIVOValue* element : *params.GetValue(0)->GetList())
    benchmark::DoNotOptimize(element->GetInt());
}

void ReadEntries(const MIVOParams& params) {
  for (const auto& entry : TheEntries())
    benchmark::DoNotOptimize(params.GetMap(entry.first.c_str())->GetString());
}

using Write = void (*)(MIVOParams&);
using Read = void (*)(const MIVOParams&);

void Report(benchmark::State& state, std::size_t size) {
  state.counters["bytes"] = static_cast<double>(size);
}

void EncodeFresh(benchmark::State& state, Write write) {
  std::size_t size = 0;
  for (auto _ : state) {
    MIVOParams params;
    write(params);
    benchmark::DoNotOptimize(params.GetParamasPtr());
    size = static_cast<std::size_t>(params.Size());
  }
  Report(state, size);
}

void EncodeReused(benchmark::State& state, Write write) {
  MIVOParams params;
  for (auto _ : state) {
    params.Clear();
    write(params);
    benchmark::DoNotOptimize(params.GetParamasPtr());
  }
  Report(state, static_cast<std::size_t>(params.Size()));
}

void DecodeFresh(benchmark::State& state, Write write, Read read) {
  MIVOParams source;
  write(source);
  for (auto _ : state) {
    MIVOParams params;
    params.Parser(source.GetParamasPtr(), source.GetParamasSize());
    read(params);
  }
  Report(state, static_cast<std::size_t>(source.Size()));
}

void DecodeReused(benchmark::State& state, Write write, Read read) {
  MIVOParams source;
  write(source);
  MIVOParams params;
  for (auto _ : state) {
    params.Parser(source.GetParamasPtr(), source.GetParamasSize());
    read(params);
  }
  Report(state, static_cast<std::size_t>(source.Size()));
}

void DecodeOnly(benchmark::State& state, Write write) {
  DecodeFresh(state, write, [](const MIVOParams& params) { benchmark::DoNotOptimize(params.ParamsSize()); });
}

BENCHMARK_CAPTURE(EncodeFresh, small, WriteSmall)->Name("encode/small/mivo");
BENCHMARK_CAPTURE(EncodeReused, small, WriteSmall)->Name("encode/small/mivo_reused");
BENCHMARK_CAPTURE(EncodeFresh, ints, WriteInts)->Name("encode/ints/mivo");
BENCHMARK_CAPTURE(EncodeReused, ints, WriteInts)->Name("encode/ints/mivo_reused");
BENCHMARK_CAPTURE(EncodeFresh, ints_list, WriteIntList)->Name("encode/ints/mivo_list");
BENCHMARK_CAPTURE(EncodeFresh, blob, WriteBlob)->Name("encode/blob/mivo");
BENCHMARK_CAPTURE(EncodeReused, blob, WriteBlob)->Name("encode/blob/mivo_reused");
BENCHMARK_CAPTURE(EncodeFresh, entries, WriteEntries)->Name("encode/entries/mivo");
BENCHMARK_CAPTURE(EncodeReused, entries, WriteEntries)->Name("encode/entries/mivo_reused");
BENCHMARK_CAPTURE(DecodeFresh, small, WriteSmall, ReadSmall)->Name("decode/small/mivo");
BENCHMARK_CAPTURE(DecodeReused, small, WriteSmall, ReadSmall)->Name("decode/small/mivo_reused");
BENCHMARK_CAPTURE(DecodeOnly, small, WriteSmall)->Name("decode/small/mivo_unread");
BENCHMARK_CAPTURE(DecodeFresh, ints, WriteInts, ReadPositional)->Name("decode/ints/mivo");
BENCHMARK_CAPTURE(DecodeReused, ints, WriteInts, ReadPositional)->Name("decode/ints/mivo_reused");
BENCHMARK_CAPTURE(DecodeOnly, ints, WriteInts)->Name("decode/ints/mivo_unread");
BENCHMARK_CAPTURE(DecodeFresh, ints_list, WriteIntList, ReadIntList)->Name("decode/ints/mivo_list");
BENCHMARK_CAPTURE(DecodeFresh, blob, WriteBlob, ReadPositional)->Name("decode/blob/mivo");
BENCHMARK_CAPTURE(DecodeReused, blob, WriteBlob, ReadPositional)->Name("decode/blob/mivo_reused");
BENCHMARK_CAPTURE(DecodeFresh, entries, WriteEntries, ReadEntries)->Name("decode/entries/mivo");
BENCHMARK_CAPTURE(DecodeReused, entries, WriteEntries, ReadEntries)->Name("decode/entries/mivo_reused");
BENCHMARK_CAPTURE(DecodeOnly, entries, WriteEntries)->Name("decode/entries/mivo_unread");

}  // namespace
