@0xd8f3a4e1b2c59701;
using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("codec_capnp");

struct Entry { key @0 :Text; value @1 :Text; }
struct Small {
  number @0 :Int32;
  flag @1 :Bool;
  real @2 :Float64;
  text @3 :Text;
  blob @4 :Data;
  keyed @5 :List(Entry);
}
struct Ints { values @0 :List(Int32); }
struct Blob { bytes @0 :Data; }
struct Entries { entries @0 :List(Entry); }
