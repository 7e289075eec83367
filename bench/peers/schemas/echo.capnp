@0xd5c7c05b5a2c7e11;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::capnproto");

struct Small {
  number @0 :Int32;
  text @1 :Text;
  blob @2 :Data;
}

interface Caller {
  call @0 (small :Small) -> (small :Small);
}

interface Echo extends(Caller) {
  echo @0 (bytes :Data) -> (bytes :Data);
  slow @1 (microseconds :UInt32) -> ();
  post @2 (small :Small) -> ();
  posted @3 () -> (count :UInt64);
  backCalls @4 (client :Caller, milliseconds :UInt32) -> ();
  callMeBack @5 (client :Caller) -> ();
  backTimes @6 () -> (times :Data);
}
