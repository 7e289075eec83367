// What the bytes alone cost: memory taken, filled and given back.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "payloads.h"

namespace {

void Copy(benchmark::State& state, const char* bytes, std::size_t size) {
  for (auto _ : state) {
    const std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), bytes, size);
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
  state.counters["bytes"] = static_cast<double>(size);
}

void CopyInts(benchmark::State& state) {
  Copy(state, reinterpret_cast<const char*>(codec::TheInts().data()), codec::TheInts().size() * sizeof(std::int32_t));
}

void CopyBlob(benchmark::State& state) {
  Copy(state, codec::TheBlob().data(), codec::TheBlob().size());
}

BENCHMARK(CopyInts)->Name("encode/ints/memcpy");
BENCHMARK(CopyBlob)->Name("encode/blob/memcpy");
BENCHMARK(CopyInts)->Name("decode/ints/memcpy");
BENCHMARK(CopyBlob)->Name("decode/blob/memcpy");

}  // namespace
