// Serialisation alone, without its RPC. Reads in place, checking as it goes.
#include <benchmark/benchmark.h>
#include <capnp/message.h>
#include <capnp/serialize.h>

#include "payloads.h"
#include "sets.capnp.h"

namespace {

using codec::TheBlob;
using codec::TheEntries;
using codec::TheInts;
using codec::TheSmall;

capnp::Data::Reader Bytes(const std::string& text) {
  return capnp::Data::Reader(reinterpret_cast<const kj::byte*>(text.data()), text.size());
}

capnp::Text::Reader Text(const std::string& text) {
  return capnp::Text::Reader(text.c_str(), text.size());
}

void Write(codec_capnp::Small::Builder set) {
  const codec::Small& small = TheSmall();
  set.setNumber(small.number);
  set.setFlag(small.flag);
  set.setReal(small.real);
  set.setText(Text(small.text));
  set.setBlob(Bytes(small.blob));
  auto keyed = set.initKeyed(1);
  keyed[0].setKey(Text(small.key));
  keyed[0].setValue(Text(small.value));
}

void Write(codec_capnp::Ints::Builder set) {
  auto values = set.initValues(static_cast<unsigned>(TheInts().size()));
  unsigned index = 0;
  for (const std::int32_t value : TheInts())
    values.set(index++, value);
}

void Write(codec_capnp::Blob::Builder set) {
  set.setBytes(Bytes(TheBlob()));
}

void Write(codec_capnp::Entries::Builder set) {
  auto entries = set.initEntries(static_cast<unsigned>(TheEntries().size()));
  unsigned index = 0;
  for (const auto& entry : TheEntries()) {
    entries[index].setKey(Text(entry.first));
    entries[index].setValue(Text(entry.second));
    ++index;
  }
}

void Read(codec_capnp::Small::Reader set) {
  benchmark::DoNotOptimize(set.getNumber());
  benchmark::DoNotOptimize(set.getFlag());
  benchmark::DoNotOptimize(set.getReal());
  benchmark::DoNotOptimize(set.getText().begin());
  benchmark::DoNotOptimize(set.getBlob().begin());
  benchmark::DoNotOptimize(set.getKeyed()[0].getValue().begin());
}

void Read(codec_capnp::Ints::Reader set) {
  for (const std::int32_t value : set.getValues())
    benchmark::DoNotOptimize(value);
}

void Read(codec_capnp::Blob::Reader set) {
  benchmark::DoNotOptimize(set.getBytes().begin());
}

// Its lists have no look-up; the entries are walked.
void Read(codec_capnp::Entries::Reader set) {
  for (const auto entry : set.getEntries()) {
    benchmark::DoNotOptimize(entry.getKey().begin());
    benchmark::DoNotOptimize(entry.getValue().begin());
  }
}

template <class Set>
void Encode(benchmark::State& state) {
  std::size_t size = 0;
  for (auto _ : state) {
    capnp::MallocMessageBuilder message;
    Write(message.initRoot<Set>());
    const auto words = capnp::messageToFlatArray(message);
    benchmark::DoNotOptimize(words.begin());
    size = words.asBytes().size();
  }
  state.counters["bytes"] = static_cast<double>(size);
}

template <class Set>
void Decode(benchmark::State& state) {
  capnp::MallocMessageBuilder message;
  Write(message.initRoot<Set>());
  const auto words = capnp::messageToFlatArray(message);
  for (auto _ : state) {
    capnp::FlatArrayMessageReader reader(words);
    Read(reader.getRoot<Set>());
  }
  state.counters["bytes"] = static_cast<double>(words.asBytes().size());
}

BENCHMARK(Encode<codec_capnp::Small>)->Name("encode/small/capnp");
BENCHMARK(Encode<codec_capnp::Ints>)->Name("encode/ints/capnp");
BENCHMARK(Encode<codec_capnp::Blob>)->Name("encode/blob/capnp");
BENCHMARK(Encode<codec_capnp::Entries>)->Name("encode/entries/capnp");
BENCHMARK(Decode<codec_capnp::Small>)->Name("decode/small/capnp");
BENCHMARK(Decode<codec_capnp::Ints>)->Name("decode/ints/capnp");
BENCHMARK(Decode<codec_capnp::Blob>)->Name("decode/blob/capnp");
BENCHMARK(Decode<codec_capnp::Entries>)->Name("decode/entries/capnp");

}  // namespace
