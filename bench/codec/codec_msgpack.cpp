#include <benchmark/benchmark.h>

#include <msgpack.hpp>

#include "payloads.h"

namespace {

using codec::TheBlob;
using codec::TheEntries;
using codec::TheInts;
using codec::TheSmall;
using Packer = msgpack::packer<msgpack::sbuffer>;

void PackText(Packer& packer, const std::string& text) {
  packer.pack_str(static_cast<std::uint32_t>(text.size()));
  packer.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
}

void PackBytes(Packer& packer, const std::string& bytes) {
  packer.pack_bin(static_cast<std::uint32_t>(bytes.size()));
  packer.pack_bin_body(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

void WriteSmall(Packer& packer) {
  const codec::Small& small = TheSmall();
  packer.pack_array(6);
  packer.pack(small.number);
  packer.pack(small.flag);
  packer.pack(small.real);
  PackText(packer, small.text);
  PackBytes(packer, small.blob);
  packer.pack_map(1);
  PackText(packer, small.key);
  PackText(packer, small.value);
}

void WriteInts(Packer& packer) {
  packer.pack_array(static_cast<std::uint32_t>(TheInts().size()));
  for (const std::int32_t value : TheInts())
    packer.pack(value);
}

void WriteBlob(Packer& packer) {
  PackBytes(packer, TheBlob());
}

void WriteEntries(Packer& packer) {
  packer.pack_map(static_cast<std::uint32_t>(TheEntries().size()));
  for (const auto& entry : TheEntries()) {
    PackText(packer, entry.first);
    PackText(packer, entry.second);
  }
}

void ReadSmall(const msgpack::object& object) {
  for (std::uint32_t index = 0; index < object.via.array.size; ++index)
    benchmark::DoNotOptimize(object.via.array.ptr[index].via);
}

void ReadInts(const msgpack::object& object) {
  for (std::uint32_t index = 0; index < object.via.array.size; ++index)
    benchmark::DoNotOptimize(object.via.array.ptr[index].as<std::int32_t>());
}

void ReadBlob(const msgpack::object& object) {
  benchmark::DoNotOptimize(object.via.bin.ptr);
}

// Its maps have no look-up; the entries are walked.
void ReadEntries(const msgpack::object& object) {
  for (std::uint32_t index = 0; index < object.via.map.size; ++index)
    benchmark::DoNotOptimize(object.via.map.ptr[index].val.via);
}

using Write = void (*)(Packer&);
using Read = void (*)(const msgpack::object&);

void Encode(benchmark::State& state, Write write) {
  std::size_t size = 0;
  for (auto _ : state) {
    msgpack::sbuffer buffer;
    Packer packer(buffer);
    write(packer);
    benchmark::DoNotOptimize(buffer.data());
    size = buffer.size();
  }
  state.counters["bytes"] = static_cast<double>(size);
}

void EncodeReused(benchmark::State& state, Write write) {
  msgpack::sbuffer buffer;
  for (auto _ : state) {
    buffer.clear();
    Packer packer(buffer);
    write(packer);
    benchmark::DoNotOptimize(buffer.data());
  }
  state.counters["bytes"] = static_cast<double>(buffer.size());
}

// Copies texts out of the bytes, as the library does.
void Decode(benchmark::State& state, Write write, Read read) {
  msgpack::sbuffer buffer;
  Packer packer(buffer);
  write(packer);
  for (auto _ : state) {
    const msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
    read(handle.get());
  }
  state.counters["bytes"] = static_cast<double>(buffer.size());
}

BENCHMARK_CAPTURE(Encode, small, WriteSmall)->Name("encode/small/msgpack");
BENCHMARK_CAPTURE(EncodeReused, small, WriteSmall)->Name("encode/small/msgpack_reused");
BENCHMARK_CAPTURE(Encode, ints, WriteInts)->Name("encode/ints/msgpack");
BENCHMARK_CAPTURE(EncodeReused, ints, WriteInts)->Name("encode/ints/msgpack_reused");
BENCHMARK_CAPTURE(Encode, blob, WriteBlob)->Name("encode/blob/msgpack");
BENCHMARK_CAPTURE(EncodeReused, blob, WriteBlob)->Name("encode/blob/msgpack_reused");
BENCHMARK_CAPTURE(Encode, entries, WriteEntries)->Name("encode/entries/msgpack");
BENCHMARK_CAPTURE(EncodeReused, entries, WriteEntries)->Name("encode/entries/msgpack_reused");
BENCHMARK_CAPTURE(Decode, small, WriteSmall, ReadSmall)->Name("decode/small/msgpack");
BENCHMARK_CAPTURE(Decode, ints, WriteInts, ReadInts)->Name("decode/ints/msgpack");
BENCHMARK_CAPTURE(Decode, blob, WriteBlob, ReadBlob)->Name("decode/blob/msgpack");
BENCHMARK_CAPTURE(Decode, entries, WriteEntries, ReadEntries)->Name("decode/entries/msgpack");

}  // namespace
